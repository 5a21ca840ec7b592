// mailto: addresses read into message fields, odd escapes included.
#include <gtest/gtest.h>

#include "mime/mailto_url.h"

namespace trv {
namespace {

TEST(MailtoUrlTest, FieldsEscapesAndOddInput) {
  struct Row {
    const char* url;
    const char* want;  // to|cc|bcc|subject|body, UTF-8
    bool odd;
  };
  const Row rows[] = {
      {"mailto:a@x.org,b@y.org?CC=c@z.org&Subject=Hi%20there&BODY=One%0D%0ATwo%0Athree",
       "a@x.org,b@y.org|c@z.org||Hi there|One\nTwo\nthree", false},
      {"MAILTO:?to=a@x&to=b@y&bcc=h@z&x-unknown=1&novalue", "a@x, b@y||h@z||", false},
      {"mailto:a+tag@x?subject=1+1%3D2", "a+tag@x|||1+1=2|", false},
      {"mailto:a@x?subject=%C3%A9t%C3%A9%20%E2%82%AC&body=%FF", "a@x|||\u00e9t\u00e9 \u20ac|\ufffd", false},
      {"mailto:a@x?subject=100%&body=%zz%4", "a@x|||100%|%zz%4", true},
      {"mailto:a%00@x?subject=a%00b#fragment", "a@x|||ab|", true},
      {"mailto:", "||||", false},
  };
  for (const Row& row : rows) {
    MailtoFields f;
    ASSERT_EQ(ParseMailtoUrl(row.url, &f), rc::kOk) << row.url;
    EXPECT_EQ(WideToUtf8(f.to + u"|" + f.cc + u"|" + f.bcc + u"|" + f.subject + u"|" + f.body), row.want) << row.url;
    EXPECT_EQ(f.odd_escapes, row.odd) << row.url;
  }
  MailtoFields f;
  EXPECT_EQ(ParseMailtoUrl("http://a@x", &f), rc::kInvalidArg);
}

}  // namespace
}  // namespace trv
