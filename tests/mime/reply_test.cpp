// Replies and forwards: recipients, subjects, thread headers, quoting and
// carried attachments, from parsed originals.
#include "mime/reply.h"

#include <gtest/gtest.h>

#include <string>

namespace trv {
namespace {

const char kThread[] =
    "From: Ann <ann@x.org>\r\nTo: me@y.org, Bob <bob@z.org>\r\nCC: ME@y.org, carol@z.org, BOB@z.org\r\n"
    "Subject: Re: RE[2]: Plan\r\nDate: Mon, 3 Jun 2024 10:00:00 +0000\r\nMessage-ID: <m1@x>\r\n"
    "In-Reply-To: <m0@x>\r\n\r\nfirst\r\n\r\n> older\r\n";
const char kList[] =
    "From: =?utf-8?q?Zo=C3=AB?= <zoe@z.org>\r\nReply-To: list@z.org\r\nTo: list@z.org\r\n"
    "Subject: FW: =?utf-8?q?Caf=C3=A9?=\r\nMessage-ID: <c@z>\r\nReferences: <a@z>\r\n <b@z>\r\n\r\nhi\r\n";
const char kOwn[] = "From: me@y.org\r\nTo: dan@q.org\r\nSubject: fwd: sent\r\nMessage-ID: <s@y>\r\n\r\nx\r\n";

TEST(ReplyTest, RecipientsSubjectsAndReferences) {
  struct Row {
    const char* name;
    const char* text;
    ReplyKind kind;
    const char16_t *to, *cc, *subject, *references;
  } rows[] = {
      {"reply", kThread, ReplyKind::kReply, u"Ann <ann@x.org>", u"", u"Re: Plan", u"<m0@x> <m1@x>"},
      {"reply all without us or repeats", kThread, ReplyKind::kReplyAll, u"Ann <ann@x.org>, Bob <bob@z.org>",
       u"carol@z.org", u"Re: Plan", u"<m0@x> <m1@x>"},
      {"forward", kThread, ReplyKind::kForward, u"", u"", u"Fwd: Re: RE[2]: Plan", u""},
      {"reply-to, encoded subject", kList, ReplyKind::kReply, u"list@z.org", u"", u"Re: FW: Café",
       u"<a@z> <b@z> <c@z>"},
      {"forward prefix once", kList, ReplyKind::kForward, u"", u"", u"Fwd: Café", u""},
      {"reply to own message", kOwn, ReplyKind::kReplyAll, u"dan@q.org", u"", u"Re: fwd: sent", u"<s@y>"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    CXmMimeMessage original;
    ASSERT_TRUE(original.ParseText(row.text).ok());
    ReplyOptions options;
    options.own_addresses = {u"me@y.org"};
    ComposedMessage out;
    ASSERT_TRUE(BuildReply(original, row.kind, options, &out).ok());
    EXPECT_EQ(out.to, row.to);
    EXPECT_EQ(out.cc, row.cc);
    EXPECT_EQ(out.subject, row.subject);
    EXPECT_EQ(out.references, row.references);
    EXPECT_EQ(out.in_reply_to, row.kind == ReplyKind::kForward ? u"" : original.GetMessageId());
  }
}

TEST(ReplyTest, QuotesTextAndCarriesAttachments) {
  CXmMimeMessage original;
  ASSERT_TRUE(original.ParseText(kThread).ok());
  WString text;
  bool html = true;
  ASSERT_TRUE(OriginalText(original, &text, &html));
  EXPECT_FALSE(html);
  ReplyOptions options;
  options.text = text;
  ComposedMessage out;
  ASSERT_TRUE(BuildReply(original, ReplyKind::kReply, options, &out).ok());
  EXPECT_EQ(out.parts.bodies.at(0).text, u"\n\nOn Mon, 3 Jun 2024 10:00:00 +0000, Ann wrote:\n> first\n>\n>> older\n");

  CXmMimeMessage mixed;
  ASSERT_TRUE(mixed
                  .ParseText("From: a@b\r\nSubject: s\r\nContent-Type: multipart/mixed; boundary=q\r\n\r\n"
                             "--q\r\nContent-Type: text/html\r\n\r\n<p>hi</p>\r\n--q\r\n"
                             "Content-Type: application/pdf; name=r.pdf\r\nContent-Transfer-Encoding: base64\r\n\r\n"
                             "AAEC/w==\r\n--q--\r\n")
                  .ok());
  ASSERT_TRUE(OriginalText(mixed, &text, &html));
  EXPECT_TRUE(html);
  ASSERT_TRUE(BuildReply(mixed, ReplyKind::kForward, options, &out).ok());
  ASSERT_EQ(out.parts.attachments.size(), 1u);
  EXPECT_EQ(out.parts.attachments[0].data, std::string("\x00\x01\x02\xff", 4));
  EXPECT_EQ(out.parts.attachments[0].file_name, u"r.pdf");
  EXPECT_EQ(out.parts.attachments[0].content_type, "application/pdf");
  EXPECT_NE(out.parts.bodies.at(0).text.find(u"-------- Original message --------\nSubject: s\nFrom: a@b\n"),
            WString::npos);

  std::u16string many;
  for (int i = 0; i < 30; ++i) many += u"<" + Utf8ToWide(std::to_string(i)) + u"@t> ";
  const WString bounded = ReplyReferences(many, u"", u"<new@t>");
  EXPECT_EQ(bounded.substr(0, 13), u"<0@t> <12@t> ");
  EXPECT_EQ(bounded.substr(bounded.size() - 14), u"<29@t> <new@t>");
}

}  // namespace
}  // namespace trv
