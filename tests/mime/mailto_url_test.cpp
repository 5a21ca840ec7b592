// mailto: addresses read into message fields, odd escapes included.
#include <gtest/gtest.h>

#include "mime/mailto_url.h"

namespace trv {
namespace {

TEST(MailtoUrlTest, FieldsEscapesAndOddInput) {
  struct Row {
    const char* url;
    const char16_t *to, *cc, *bcc, *subject, *body;
    bool odd;
  };
  const Row rows[] = {
      {"mailto:a@x.org,b@y.org?CC=c@z.org&Subject=Hi%20there&BODY=One%0D%0ATwo%0Athree", u"a@x.org,b@y.org",
       u"c@z.org", u"", u"Hi there", u"One\nTwo\nthree", false},
      {"MAILTO:?to=a@x&to=b@y&bcc=h@z&x-unknown=1&novalue", u"a@x, b@y", u"", u"h@z", u"", u"", false},
      {"mailto:a+tag@x?subject=1+1%3D2", u"a+tag@x", u"", u"", u"1+1=2", u"", false},
      {"mailto:a@x?subject=%C3%A9t%C3%A9%20%E2%82%AC&body=%FF", u"a@x", u"", u"", u"\u00e9t\u00e9 \u20ac",
       u"\ufffd", false},
      {"mailto:a@x?subject=100%&body=%zz%4", u"a@x", u"", u"", u"100%", u"%zz%4", true},
      {"mailto:a%00@x?subject=a%00b#fragment", u"a@x", u"", u"", u"ab", u"", true},
      {"mailto:", u"", u"", u"", u"", u"", false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.url);
    MailtoFields f;
    ASSERT_EQ(ParseMailtoUrl(row.url, &f), rc::kOk);
    EXPECT_EQ(f.to, row.to);
    EXPECT_EQ(f.cc, row.cc);
    EXPECT_EQ(f.bcc, row.bcc);
    EXPECT_EQ(f.subject, row.subject);
    EXPECT_EQ(f.body, row.body);
    EXPECT_EQ(f.odd_escapes, row.odd);
  }
  MailtoFields f;
  EXPECT_EQ(ParseMailtoUrl("http://a@x", &f), rc::kInvalidArg);
}

}  // namespace
}  // namespace trv
