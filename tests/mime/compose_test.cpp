// Composition: the structure chosen for bodies, inline items and
// attachments, written and parsed back; field copies on rebuild; character
// sets; unsent marks and list facts.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "mime/compose.h"
#include "mime/message_facts.h"
#include "mime/rfc822_date.h"
#include "tests/mime/part_tree_util.h"
#include "tests/support/temp_dir.h"

namespace trv {
namespace {

using test::Shape;
using test::Texts;

// A clock stopped at 2024-01-02 03:04:05.006 local time and random numbers
// taken in turn from a list.
struct FixedStamp final : StampSource {
  std::vector<unsigned> randoms{7};
  size_t next = 0;
  double Now() override { return DateFromCivil({2024, 1, 2, 3, 4, 5, 0, 0}); }
  CivilTime LocalNow() override { return {2024, 1, 2, 3, 4, 5, 6, 2}; }
  unsigned Random() override { return randoms[next++ % randoms.size()]; }
};

// A composed message, its written text and that text parsed again.
struct Composed {
  CXmMimeMessage m, back;
  uint16_t flags = 0;
  ComposeReport report;
  Result status;

  explicit Composed(const ComposedMessage& c, const ComposeOptions& o = {}) {
    status = ComposeMessage(c, o, &m, &flags, &report);
  }
  std::string Text(bool transport = false) {
    MimeWriteOptions o;
    o.header = report.header_options();
    o.for_transport = transport;
    std::string text;
    EXPECT_TRUE(m.Write(&text, o).ok());
    return text;
  }
  Result Reparse() { return back.ParseText(Text()); }
};

ComposedMessage WithBody(std::u16string body) {
  ComposedMessage c;
  c.parts.bodies.push_back({std::move(body), false});
  return c;
}

std::vector<const CXmMessagePart*> Leaves(const CXmMimeMessage& m) {
  std::vector<const CXmMessagePart*> out;
  for (const CXmMessagePart* p : m.Parts()) {
    if (!p->IsMultipart()) out.push_back(p);
  }
  return out;
}

std::string Decoded(const CXmMessagePart& p) {
  CXmMemoryStream out;
  EXPECT_TRUE(p.DecodeBody(out).ok());
  return out.Take();
}

TEST(ComposeTest, StructureChoiceRoundTrips) {
  struct Row { const char* name; int bodies, inline_items, attachments; const char* shape; };
  const Row rows[] = {
      {"one plain body", 1, 0, 0, "T:text/plain"},
      {"plain and html", 2, 0, 0, "C:multipart/alternative{T:text/plain,P:text/html}"},
      {"body and attachments", 1, 0, 2, "C:multipart/mixed{T:text/plain,P:application/pdf,P:application/pdf}"},
      {"two bodies and an attachment", 2, 0, 1,
       "C:multipart/mixed{C:multipart/alternative{T:text/plain,P:text/html},P:application/pdf}"},
      {"everything", 2, 2, 1,
       "C:multipart/mixed{C:multipart/related{C:multipart/alternative{T:text/plain,P:text/html},P:image/png,"
       "P:image/png},P:application/pdf}"},
      {"nothing at all", 0, 0, 0, "T:text/plain"},
  };
  const std::string binary("\x89PNG\0\x01\x02\xff\r\n\n\r", 12);
  const ComposedText texts[] = {{u"plain ü text\rsecond line\n", false}, {u"<p>html</p>", true}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    ComposedMessage c;
    c.from = u"Jörg <j@example.org>";
    c.subject = u"Grüße";
    for (int i = 0; i < row.bodies; ++i) c.parts.bodies.push_back(texts[i]);
    for (int i = 0; i < row.inline_items; ++i) {
      c.parts.inline_items.push_back({{}, binary + char('a' + i), u"p.png", {}, {}});
    }
    for (int i = 0; i < row.attachments; ++i) c.parts.attachments.push_back({{}, binary + binary, u"d.pdf", {}, {}});
    Composed x(c);
    ASSERT_TRUE(x.status.ok());
    EXPECT_EQ(Shape(x.m.root()), row.shape);
    ASSERT_TRUE(x.Reparse().ok()) << DescribeParseProblems(x.back.problems());
    const std::string text = x.Text();
    const size_t preamble = text.find("This is a multi-part");
    EXPECT_EQ(preamble != std::string::npos, x.m.root().IsMultipart());
    EXPECT_EQ(text.find("This is a multi-part", preamble + 1), std::string::npos) << "only the root has one";
    EXPECT_EQ(Shape(x.back.root()), row.shape);
    EXPECT_EQ(x.back.header().DisplayText(field::kSubject), u"Grüße");
    const auto sent = Leaves(x.m);
    const auto got = Leaves(x.back);
    ASSERT_EQ(sent.size(), got.size());
    for (size_t i = 0; i < sent.size(); ++i) {
      EXPECT_EQ(Decoded(*got[i]), Decoded(*sent[i])) << "part " << i;
      EXPECT_EQ(got[i]->GetFileName(), sent[i]->GetFileName());
      EXPECT_EQ(got[i]->IsAttachment(), sent[i]->IsAttachment());
    }
    if (row.bodies > 0) {
      WString body;
      ASSERT_TRUE(got[0]->GetText(&body).ok());
      EXPECT_EQ(body, u"plain ü text\r\nsecond line\r\n");
    }
  }
}

TEST(ComposeTest, NewBoundariesFromTheClockDifferFromTheirAncestors) {
  FixedStamp stamp;  // the same random number every time
  CXmMimeMessage m;
  auto root = std::make_unique<CXmMultiPartPart>(nullptr, nullptr);
  auto inner = std::make_unique<CXmMultiPartPart>(nullptr, nullptr);
  auto text = std::make_unique<CXmPlainTextPart>(nullptr, nullptr);
  text->SetBody("deep");
  inner->AddChild(std::move(text));
  root->AddChild(std::move(inner));
  m.SetRoot(std::move(root));
  MimeWriteOptions o;
  o.stamp = &stamp;
  std::string written;
  CXmMimeMessage back;
  ASSERT_TRUE(m.Write(&written, o).ok() && back.ParseText(written).ok());
  EXPECT_EQ(m.root().header().Boundary(), u"----------=_2024010203040500060007");
  EXPECT_NE(m.root().children()[0]->header().Boundary(), m.root().header().Boundary());
  EXPECT_EQ(Texts(back), "deep");
}

// The type of a file: the first type a types file names for its extension,
// then the built-in table, then application/octet-stream.
TEST(ComposeTest, AttachmentFromAFileTypedByTheTypesFile) {
  test::TempDir dir;
  std::string bytes(20 * 1024, '\0');
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>((i * 131) >> 3);
  test::WriteFile(dir / "report.xyz", bytes);
  test::WriteFile(dir / "types", "application/x-report xyz XYZ\n# pdf image/wrong\napplication/pdf pdf\nimage/x xyz\n");
  MimeTypes types;
  EXPECT_FALSE(types.Load(dir / "none"));
  ASSERT_TRUE(types.Load(dir / "types"));
  const std::pair<std::u16string, const char*> rows[] = {
      {u"a.Xyz", "application/x-report"}, {u"x.tar.pdf", "application/pdf"}, {u"dot.", "application/octet-stream"},
      {u"b.docx", "application/vnd.openxmlformats-officedocument.wordprocessingml.document"}};
  for (const auto& [name, type] : rows) EXPECT_EQ(types.ForFileName(name), type) << WideToUtf8(name);

  ComposedMessage c = WithBody(u"see attached");
  c.parts.attachments.push_back({dir / "report.xyz", {}, {}, {}, {}});
  ComposeOptions o;
  o.types = &types;
  Composed x(c, o);
  ASSERT_TRUE(x.status.ok() && x.Reparse().ok());
  const CXmMessagePart& att = *x.back.root().children()[1];
  EXPECT_EQ(att.GetContentType(), u"application/x-report");
  EXPECT_EQ(att.GetFileName(), u"report.xyz");
  EXPECT_EQ(att.encoding(), kEncodingBase64);
  EXPECT_TRUE(Decoded(att) == bytes);
}

TEST(ComposeTest, InlineItemsCarryContentIds) {
  FixedStamp stamp;
  stamp.randoms = {1, 2};
  ComposedParts parts;
  parts.bodies.push_back({u"<img src=\"cid:logo\">", true});
  parts.inline_items.push_back({{}, "a", u"a.png", {}, u"logo"});
  parts.inline_items.push_back({{}, "b", u"b.png", {}, {}});
  ComposeOptions o;
  o.stamp = &stamp;
  CXmMimeMessage m;
  ComposeReport report;
  ASSERT_TRUE(RebuildMessage(&m, parts, o, &report).ok());
  EXPECT_EQ(report.content_ids, (std::vector<WString>{u"<logo>", u"<part2.202401020304050006@00020001>"}));
  const auto& kids = m.root().children();
  EXPECT_EQ(kids[1]->GetContentId(), u"<logo>");
  EXPECT_EQ(kids[2]->header().GetContentDisposition(), u"inline");
}

TEST(ComposeTest, SendingCharsetAndBodyEncoding) {
  struct Row { const char *name, *sending, *encoding; std::u16string body, subject; const char* charset; bool changed;
               TransferEncoding used; };
  const Row rows[] = {
      {"ASCII stays us-ascii", "", "", u"plain", u"s", "us-ascii", false, kEncoding7bit},
      {"the sending set holds it", "iso-8859-1", "", u"café", u"s", "iso-8859-1", false,
       kEncodingQuotedPrintable},
      {"not in the sending set: UTF-8", "iso-8859-1", "", u"Grüße 5 €", u"s", "utf-8", true, kEncodingBase64},
      {"named encoding", "", "quoted-printable", u"plain", u"s", "us-ascii", false, kEncodingQuotedPrintable},
      {"over-long line", "", "", std::u16string(1200, u'x'), u"s", "us-ascii", false, kEncodingQuotedPrintable},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    ComposedMessage c = WithBody(row.body);
    c.subject = row.subject;
    ComposeOptions o;
    o.sending_charset = row.sending;
    o.body_encoding = row.encoding;
    Composed x(c, o);
    ASSERT_TRUE(x.status.ok() && x.Reparse().ok());
    EXPECT_EQ(x.report.charset, row.charset);
    EXPECT_EQ(x.report.charset_changed, row.changed);
    EXPECT_EQ(x.back.root().encoding(), row.used);
    EXPECT_EQ(x.back.root().GetCharset(), row.charset);
    WString text;
    ASSERT_TRUE(x.back.root().GetText(&text).ok());
    EXPECT_EQ(text, row.body);
    EXPECT_EQ(x.back.header().DisplayText(field::kSubject), row.subject);
  }
}

// What the stored and the sent text hold, and the facts read back.
TEST(ComposeTest, TransportTextAndFacts) {
  ComposedMessage c = WithBody(u"x");
  c.from = u"Jörg <j@example.org>";
  c.sender = u"assistant@example.org";
  c.to = u"t@example.org";
  c.bcc = u"hidden@example.org";
  c.priority = Priority::kHigh;
  c.parts.attachments.push_back({{}, "pdf", u"r.pdf", {}, {}});
  Composed x(c);
  ASSERT_TRUE(x.status.ok() && x.Reparse().ok());
  EXPECT_EQ(x.flags, kFlagUnsent | kFlagPriorityHigh);
  const std::string stored = x.Text(), sent = x.Text(true);
  EXPECT_NE(stored.find("BCC: hidden@example.org\r\n"), std::string::npos);
  EXPECT_NE(stored.find("X-Unsent: 1\r\n"), std::string::npos);
  EXPECT_EQ(sent.find("hidden@example.org"), std::string::npos);
  EXPECT_EQ(sent.find("X-Unsent"), std::string::npos);
  EXPECT_EQ(RecipientAddresses(x.m.header()), (std::vector<WString>{u"t@example.org", u"hidden@example.org"}));

  const MessageFacts facts = ReadMessageFacts(x.back);
  EXPECT_EQ(facts.from, u"Jörg <j@example.org>");
  const WString id = x.m.GetMessageId();
  EXPECT_EQ(facts.message_id, id.substr(1, id.size() - 2)) << "without its angle brackets";
  EXPECT_EQ(facts.priority, Priority::kHigh);
  EXPECT_TRUE(facts.has_attachments);
  EXPECT_EQ(facts.flags(), x.flags);
  EXPECT_EQ(SenderAddress(x.back.header()), u"assistant@example.org");
  EXPECT_TRUE(ReadHeaderFacts(x.back.header()).has_attachments) << "multipart/mixed is taken as a sign";
  CXmMimeMessage plain;  // no Sender: the From address; text/html alone is no attachment
  ASSERT_TRUE(plain.ParseText("From: x@y\r\nContent-Type: text/html\r\n\r\n<p>").ok());
  EXPECT_EQ(SenderAddress(plain.header()), u"x@y");
  EXPECT_FALSE(ReadMessageFacts(plain).has_attachments);
}

std::vector<std::string> FieldNames(const CXmHeader& h) {
  std::vector<std::string> names;
  for (const CXmHeaderField& f : h.fields()) {
    if (!StartsWithNoCase(f.name(), u"Content-")) names.push_back(WideToUtf8(f.name()));
  }
  return names;
}

TEST(RebuildTest, CopiesTheFieldsInOrderAndBccOnlyWhenUnsent) {
  const std::string old_header =
      "Received: from x\r\nX-Other: 1\r\nSubject: s\r\nBCC: hidden@x\r\nCC: c@x\r\nTo: t@x\r\nFrom: f@x\r\n"
      "Reply-To: r@x\r\nSender: s@x\r\nX-Unsent: 1\r\nX-Priority: 1 (highest)\r\nIn-Reply-To: <p@x>\r\n"
      "References: <q@x>\r\nDate: Tue, 4 Jan 2005 09:05:07 +0100\r\n\r\nold body";
  for (const bool unsent : {false, true}) {
    SCOPED_TRACE(unsent ? "unsent" : "sent");
    CXmMimeMessage m;
    ASSERT_TRUE(m.ParseText(old_header).ok());
    ComposeOptions o;
    o.save_unsent = unsent;
    ComposeReport report;
    ASSERT_TRUE(RebuildMessage(&m, WithBody(u"new body").parts, o, &report).ok());
    std::vector<std::string> expected = {"Sender", "Reply-To",   "From",        "To",         "CC",  "BCC",
                                         "Subject", "X-Unsent", "X-Priority", "In-Reply-To", "References", "Date"};
    if (!unsent) std::erase_if(expected, [](const std::string& name) { return name == "BCC" || name == "X-Unsent"; });
    EXPECT_EQ(FieldNames(m.header()), expected);
    EXPECT_EQ(m.GetDate(), u"Tue, 4 Jan 2005 09:05:07 +0100");
    EXPECT_EQ(Texts(m), "new body");
  }
  FixedStamp stamp;
  ComposeOptions o;
  o.stamp = &stamp;
  CXmMimeMessage fresh;
  ComposeReport report;
  ASSERT_TRUE(RebuildMessage(&fresh, WithBody(u"x").parts, o, &report).ok());
  EXPECT_EQ(fresh.GetDate(), W(WriteDate(stamp.Now()))) << "a new date when there was none";
}

TEST(RebuildTest, UnreadableAttachmentLeavesTheOldMessage) {
  test::TempDir dir;
  CXmMimeMessage m;
  ASSERT_TRUE(m.ParseText("Subject: keep\r\n\r\nold").ok());
  ComposedParts parts = WithBody(u"new").parts;
  parts.attachments.push_back({dir / "missing.pdf", {}, {}, {}, {}});
  ComposeReport report;
  EXPECT_EQ(RebuildMessage(&m, parts, {}, &report), ResultFromErrno(ENOENT));
  EXPECT_EQ(report.failed_file, dir / "missing.pdf");
  EXPECT_EQ(m.GetSubject(), u"keep");
  EXPECT_EQ(Texts(m), "old");
}

}  // namespace
}  // namespace trv
