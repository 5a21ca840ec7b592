#include <gtest/gtest.h>

#include <string>

#include "mime/base64.h"
#include "mime/mime_message.h"
#include "tests/mime/part_tree_util.h"
#include "tests/support/temp_dir.h"
#include "mime/mime_result.h"

namespace trv {
namespace {

using test::Crlf;
using test::Shape;
using test::Texts;

struct TreeRow { const char* name; std::string message; const char* shape; std::string texts; Result status;
                 uint32_t problems; };

TEST(PartTreeTest, StructureTextsAndStatus) {
  // The line reader hands out over-long lines in pieces of kMaxLineLength; a
  // piece that starts like a boundary is still in the middle of its line.
  const std::string long_line(3 * kMaxLineLength, 'x');
  const TreeRow rows[] = {
      {"empty message", "", "T:text/plain", "", rc::kOk, 0},
      {"mbox separator before the header", Crlf("From someone@x Mon Jan  1 00:00:00 2024\nSubject: s\n\nbody"),
       "T:text/plain", "body", rc::kOk, 0},
      {"nested alternative with its own preamble and epilogue",
       Crlf("Content-Type: multipart/mixed; boundary=\"outer\"\n\n--outer\n"
            "Content-Type: multipart/alternative; boundary=inner\n\ninner preamble\n--inner\n\nplain\n"
            "--inner\nContent-Type: text/html\n\n<p>html</p>\n--inner--\ninner epilogue\n--outer\n"
            "Content-Type: text/plain\n\nafter\n--outer--\n"),
       "C:multipart/mixed{C:multipart/alternative{T:text/plain,P:text/html},T:text/plain}",
       "plain|<p>html</p>|after", rc::kOk, 0},
      {"digest child without type is a message",
       Crlf("Content-Type: multipart/digest; boundary=d\n\n--d\n\nSubject: first\n\nbody one\n--d\n"
            "Content-Type: text/plain\n\nnote\n--d--\n"),
       "C:multipart/digest{P:message/rfc822,T:text/plain}", "Subject: first\r\n\r\nbody one|note", rc::kOk, 0},
      {"multipart without boundary is read as plain text", Crlf("Content-Type: multipart/mixed\n\n--x\nhello\n"),
       "P:text/plain", "--x\r\nhello\r\n", rc::kMimeSyntax, kProblemNoBoundary},
      {"missing closing delimiter keeps the parts",
       Crlf("Content-Type: multipart/mixed; boundary=b\n\n--b\n\none\n--b\n\ntwo\n"),
       "C:multipart/mixed{T:text/plain,T:text/plain}", "one|two\r\n", rc::kMimeSyntax, kProblemUnterminated},
      {"unterminated inner container ends at the outer boundary",
       Crlf("Content-Type: multipart/mixed; boundary=o\n\n--o\n"
            "Content-Type: multipart/alternative; boundary=i\n\n--i\n\ninner\n--o\n\nouter\n--o--\n"),
       "C:multipart/mixed{C:multipart/alternative{T:text/plain},T:text/plain}", "inner|outer", rc::kMimeSyntax,
       kProblemUnterminated},
      {"boundary that never comes keeps the body as text",
       Crlf("Content-Type: multipart/mixed; boundary=zzz\n\n--other\nonly text\n"), "C:multipart/mixed{T:text/plain}",
       "--other\r\nonly text\r\n", rc::kMimeSyntax, kProblemUnterminated | kProblemBoundaryNotFound},
      {"near misses of the boundary are body text; blanks after the closing one",
       Crlf("Content-Type: multipart/mixed; boundary=b\n\n--b\n\n--bx\n--B\n-- b\n--b-\n--b--  \t\nignored\n"),
       "C:multipart/mixed{T:text/plain}", "--bx\r\n--B\r\n-- b\r\n--b-", rc::kOk, 0},
      {"part that starts with text instead of a header",
       Crlf("Content-Type: multipart/mixed; boundary=b\n\n--b\nHello, no header here\n--b--\n"),
       "C:multipart/mixed{T:text/plain}", "Hello, no header here", rc::kOk, kProblemNoHeader},
      {"a line of 192 KiB",
       Crlf("Content-Type: multipart/mixed; boundary=b\n\n--b\n\n") + long_line + Crlf("\n--b\n\nnext\n--b--\n"),
       "C:multipart/mixed{T:text/plain,T:text/plain}", long_line + "|next", rc::kOk, kProblemLongLines},
      {"a long line that ends like a boundary",
       Crlf("Content-Type: multipart/mixed; boundary=b\n\n--b\n\n") + long_line + Crlf("--b--\n--b--\n"),
       "C:multipart/mixed{T:text/plain}", long_line + "--b--", rc::kOk, kProblemLongLines},
  };
  for (const TreeRow& row : rows) {
    SCOPED_TRACE(row.name);
    CXmMimeMessage m;
    EXPECT_EQ(m.ParseText(row.message).code(), row.status.code());
    EXPECT_EQ(Shape(m.root()), row.shape);
    EXPECT_TRUE(Texts(m) == row.texts) << Texts(m).substr(0, 200);
    EXPECT_EQ(m.problems(), row.problems) << DescribeParseProblems(m.problems());
  }
}

const std::string kNested = Crlf(
    "From: a@example.org\nContent-Type: multipart/mixed; boundary=\"outer\"\n\npreamble\n--outer\n"
    "Content-Type: multipart/alternative; boundary=inner\n\n--inner\nContent-Type: text/plain; charset=utf-8\n"
    "Content-Transfer-Encoding: quoted-printable\n\ncaf=C3=A9 au lait=\n!\n--inner\nContent-Type: text/html\n\n"
    "<p>x</p>\n--inner--\n--outer\nContent-Type: image/png; name=a.png\nContent-Transfer-Encoding: base64\n\n"
    "aGVsbG8g\nd29ybGQ=\n--outer--\n");

// Shape, texts and every body range: equal for every way the input arrives.
std::string Dump(const CXmMimeMessage& m) {
  std::string out = Shape(m.root()) + " " + Texts(m);
  for (const CXmMessagePart* p : m.Parts()) {
    out += " " + std::to_string(p->body().offset) + "+" + std::to_string(p->body().length);
  }
  return out;
}

TEST(PartTreeTest, ParseDoesNotDependOnHowTheInputArrives) {
  CXmMimeMessage whole;
  ASSERT_TRUE(whole.ParseText(kNested).ok());
  EXPECT_EQ(Texts(whole), "café au lait!|<p>x</p>|hello world");
  const std::string expected = Dump(whole);
  for (size_t piece = 1; piece <= kNested.size(); ++piece) {
    CXmMimeMessage m;
    ASSERT_TRUE(m.Parse(std::make_shared<test::ChunkedSource>(kNested, piece)).ok());
    ASSERT_EQ(Dump(m), expected) << "pieces of " << piece;
  }
}

TEST(PartTreeTest, LineEndBeforeTheBoundaryBelongsToIt) {
  const std::string msg = Crlf(
      "Content-Type: multipart/mixed; boundary=b\n\n--b\n\nhi\n--b\nContent-Transfer-Encoding: base64\n\naGk=\n"
      "--b\n\n\n--b\n\nx\n--b--\n");
  CXmMimeMessage m;
  ASSERT_TRUE(m.ParseText(msg).ok());
  const auto& kids = m.root().children();
  ASSERT_EQ(kids.size(), 4u);
  EXPECT_EQ(kids[0]->body().length, 2u) << "CR LF before the boundary removed";
  EXPECT_EQ(kids[1]->body().length, 6u) << "a base64 body keeps it";
  EXPECT_EQ(kids[2]->body().length, 0u) << "an empty line alone is the line end before the boundary";
  EXPECT_EQ(Texts(m), "hi|hi||x");
}

TEST(PartTreeTest, TransferDecodingAndCharsets) {
  // An unknown declared charset is the body's problem only: the header parses clean.
  struct Row { const char *name, *encoding, *charset; std::string body; std::u16string text; Result status; };
  const Row rows[] = {
      {"base64", "base64", "", "aGVsbG8=", u"hello", rc::kOk},
      {"quoted-printable with a soft break", "quoted-printable", "utf-8", "caf=C3=A9=\r\n!", u"café!", rc::kOk},
      {"damaged base64 keeps what it can", "base64", "", "aGV*sbG8=", u"hello", rc::kMimeSyntax},
      {"unknown charset falls back", "8bit", "x-nothing", "caf\xC3\xA9", u"café", rc::kMimeCharset},
      {"undeclared 8-bit text", "8bit", "", "caf\xE9", u"café", rc::kOk},
      {"a name that is base64 only when cut to bytes", "\xC5\xA2" "ase64", "utf-8", "aGk=", u"aGk=", rc::kOk},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::string msg = "Content-Type: text/plain";
    if (*row.charset) msg += std::string("; charset=") + row.charset;
    msg += std::string("\r\nContent-Transfer-Encoding: ") + row.encoding + "\r\n\r\n" + row.body;
    CXmMimeMessage m;
    ASSERT_EQ(m.ParseText(msg).code(), rc::kOk.code());
    WString text;
    EXPECT_EQ(m.root().GetText(&text).code(), row.status.code());
    EXPECT_EQ(text, row.text);
  }
}

// The header is decoded again with the charset the message declares; a
// charset chosen by the reader overrides it for the body.
TEST(PartTreeTest, DeclaredAndOverriddenCharsets) {
  const std::string koi8 = "\xF0\xD2\xC9\xD7\xC5\xD4";  // "Привет"
  const std::string msg = "Subject: " + koi8 + "\r\nContent-Type: text/plain; charset=koi8-r\r\n\r\n" + koi8;
  CXmMimeMessage m;
  ASSERT_TRUE(m.ParseText(msg).ok());
  EXPECT_EQ(m.GetSubject(), u"Привет");
  EXPECT_EQ(m.header().DisplayText(field::kSubject), u"Привет");
  EXPECT_EQ(Texts(m), "Привет");
  ASSERT_TRUE(m.ParseText(msg, "us-ascii", kParseKeepSource | kParseIgnoreDeclaredCharset).ok());
  EXPECT_EQ(m.GetSubject(), Latin1ToWide(koi8));

  ASSERT_TRUE(m.ParseText("Content-Type: text/plain; charset=utf-8\r\n\r\n" + std::string("caf\xC3\xA9\0!", 7)).ok());
  EXPECT_TRUE(m.problems() & kProblemNulBytes);
  CXmMemoryStream raw;
  ASSERT_TRUE(m.root().DecodeBody(raw).ok());
  EXPECT_EQ(raw.data(), std::string("caf\xC3\xA9\0!", 7)) << "the body keeps its NUL byte";
  m.set_charset_override("iso-8859-1");
  WString text;
  ASSERT_TRUE(m.root().GetText(&text).ok());
  EXPECT_EQ(text, u"cafÃ©\uFFFD!");
}

TEST(PartTreeTest, BodiesStayInTheSourceAndAreReadInPieces) {
  test::TempDir dir;
  std::string big(3 * 1024 * 1024, '\0');
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7 + i / 1000);
  const std::string encoded = Base64Encode(big, 76);
  const std::string msg = "Content-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\n\r\ntext\r\n--b\r\n"
                          "Content-Type: application/octet-stream\r\nContent-Transfer-Encoding: base64\r\n\r\n" +
                          encoded + "\r\n--b--\r\n";
  test::WriteFile(dir / "big.eml", msg);

  auto counting = std::make_shared<test::ChunkedSource>(msg, SIZE_MAX);
  CXmMimeMessage probe;
  ASSERT_TRUE(probe.Parse(counting).ok());
  EXPECT_LE(counting->largest_request(), 1024u) << "the parse reads through a 1024-byte line reader";

  auto file = std::make_shared<CXmFileSource>();
  ASSERT_TRUE(file->Open(dir / "big.eml").ok());
  CXmMimeMessage m;
  ASSERT_TRUE(m.Parse(file, "us-ascii", 0).ok());
  EXPECT_EQ(m.source(), nullptr) << "without kParseKeepSource the message lets go of its source";
  const CXmMessagePart& attachment = *m.root().children()[1];
  EXPECT_EQ(attachment.GetBodySize(), encoded.size() + 2);
  CXmMemoryStream out;
  EXPECT_EQ(attachment.DecodeBody(out), rc::kInvalidArg);
  ASSERT_TRUE(attachment.DecodeBody(file.get(), out).ok());
  EXPECT_TRUE(out.data() == big);
}

TEST(PartTreeTest, DepthAndPartLimits) {
  std::string deep = "Content-Type: multipart/mixed; boundary=b0\r\n\r\n";
  for (int i = 1; i <= 6; ++i) {
    deep += "--b" + std::to_string(i - 1) + "\r\nContent-Type: multipart/mixed; boundary=b" + std::to_string(i) + "\r\n\r\n";
  }
  deep += "--b6\r\n\r\ndeep text\r\n";
  for (int i = 6; i >= 0; --i) deep += "--b" + std::to_string(i) + "--\r\n";
  ParseLimits limits;
  limits.max_depth = 3;
  CXmMimeMessage m;
  EXPECT_EQ(m.ParseText(deep, "us-ascii", kParseKeepSource, limits), rc::kMimeSyntax);
  EXPECT_TRUE(m.problems() & kProblemDepthLimit);
  EXPECT_NE(Texts(m).find("deep text"), std::string::npos) << "the text is kept";
  ASSERT_TRUE(m.ParseText(deep).ok()) << DescribeParseProblems(m.problems());
  EXPECT_EQ(Texts(m), "deep text");

  std::string wide = "Content-Type: multipart/mixed; boundary=b\r\n\r\n";
  for (int i = 0; i < 20; ++i) wide += "--b\r\n\r\npart " + std::to_string(i) + "\r\n";
  wide += "--b--\r\n";
  limits = ParseLimits();
  limits.max_parts = 5;
  EXPECT_EQ(m.ParseText(wide, "us-ascii", kParseKeepSource, limits), rc::kMimeSyntax);
  EXPECT_EQ(m.root().children().size(), 5u);
  EXPECT_EQ(m.problems(), kProblemPartLimit);
}

// The class a header gives a part, its type, whether it is an attachment
// and the file name it is saved under.
TEST(MessagePartTest, ClassTypeAttachmentAndFileName) {
  const char* kPlain = "CXmPlainTextPart";
  const char* kPart = "CXmMessagePart";
  struct Row { const char* header; const char* cls; const char* type; bool text, plain, attachment; WString name; };
  const Row rows[] = {
      {"", kPlain, "text/plain", true, true, false, u""},
      {"Content-Type: text/html", kPart, "text/html", true, false, false, u""},
      {"Content-Type: image/png\r\nContent-Disposition: inline", kPart, "image/png", false, false, false, u""},
      {"Content-Type: video/mp4\r\nContent-Disposition: x-unknown", kPart, "video/mp4", false, false, true, u""},
      {"Content-Type: application/pdf\r\nContent-Disposition: ; filename=a.pdf", kPart, "application/pdf", false,
       false, true, u"a.pdf"},
      {"Content-Type: multipart/mixed; boundary=b", "CXmMultiPartPart", "multipart/mixed", false, false, false, u""},
      {"Content-Type: application/pdf; name=b.pdf\r\nContent-Disposition: attachment; filename=a.pdf", kPart,
       "application/pdf", false, false, true, u"a.pdf"},
      {"Content-Disposition: attachment; filename*=utf-8''r%C3%A9sum%C3%A9.pdf", kPlain, "text/plain", true, true, true,
       u"résumé.pdf"},
      {"Content-Type: image/png; name=\"=?utf-8?B?w6kucGRm?=\"", kPart, "image/png", false, false, false, u"é.pdf"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.header);
    CXmMimeMessage m;
    m.ParseText(std::string(row.header) + "\r\n\r\n--b--\r\n").Ignore();
    const CXmMessagePart& p = m.root();
    EXPECT_STREQ(p.GetClassName(), row.cls);
    EXPECT_EQ(WideToUtf8(p.GetContentType()), row.type);
    EXPECT_EQ(std::make_tuple(p.IsText(), p.IsPlainText(), p.IsAttachment()),
              std::make_tuple(row.text, row.plain, row.attachment));
    EXPECT_EQ(p.IsMultipart(), std::string(row.cls) == "CXmMultiPartPart");
    EXPECT_EQ(p.GetFileName(), row.name);
  }
  CXmMessagePart part(nullptr, nullptr);
  part.SetFileName(u"x.bin");
  EXPECT_TRUE(part.IsAttachment()) << "a file name makes an attachment";
}

TEST(MessagePartTest, AttachedMessageIsParsedInPlaceOrDecoded) {
  const std::string inner = "Subject: inner\r\n\r\ninner body";
  for (const bool encoded : {false, true}) {
    SCOPED_TRACE(encoded ? "base64" : "7bit");
    const std::string body = encoded ? Base64Encode(inner, 76) : inner;
    const std::string msg = "Content-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\nContent-Type: message/rfc822\r\n" +
                            std::string(encoded ? "Content-Transfer-Encoding: base64\r\n" : "") + "\r\n" + body +
                            "\r\n--b--\r\n";
    CXmMimeMessage m;
    ASSERT_TRUE(m.ParseText(msg).ok());
    const CXmMessagePart& part = *m.root().children()[0];
    EXPECT_TRUE(part.IsMessage());
    CXmMimeMessage attached;
    ASSERT_TRUE(ParseAttachedMessage(part, &attached).ok());
    EXPECT_EQ(attached.GetSubject(), u"inner");
    EXPECT_EQ(Texts(attached), "inner body");
  }
}

}  // namespace
}  // namespace trv
