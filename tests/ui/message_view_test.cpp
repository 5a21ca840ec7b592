// Picture sizes, HTML read as text, the reading view and what `show` prints.
#include <gtest/gtest.h>

#include <string>

#include "mime/mime_message.h"
#include "mime/html_text.h"
#include "ui/image_size.h"
#include "ui/message_show.h"
#include "ui/message_view.h"
#include "tests/mime/part_tree_util.h"
#include "mime/mime_result.h"

namespace trv {
namespace {

using test::Crlf;

std::string Be32(uint32_t v) { return {char(v >> 24), char(v >> 16), char(v >> 8), char(v)}; }
std::string Le16(uint32_t v) { return {char(v), char(v >> 8)}; }
std::string Le32(uint32_t v) { return Le16(v) + Le16(v >> 16); }

std::string Png(uint32_t w, uint32_t h) { return std::string("\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR", 16) + Be32(w) + Be32(h); }

TEST(ImageSizeTest, Formats) {
  const std::string jpeg_app0 = std::string("\xFF\xD8\xFF\xE0\x00\x10", 6) + std::string(14, 'j');
  const std::string sof = std::string("\x08\x00\x64\x00\xC8\x03", 6) + std::string(9, '\0');  // 200 x 100
  const std::string riff = "RIFF" + Le32(100) + "WEBP";
  struct Row { const char* name; std::string bytes; int width, height; };  // width 0: no size read
  const Row rows[] = {
      {"png", Png(640, 480), 640, 480},
      {"gif", "GIF89a" + Le16(320) + Le16(200), 320, 200},
      {"jpeg after an APP0 segment", jpeg_app0 + std::string("\xFF\xC0\x00\x11", 4) + sof, 200, 100},
      {"jpeg huffman table is no frame", jpeg_app0 + std::string("\xFF\xC4\x00\x11", 4) + sof, 0, 0},
      {"bmp stored top down", "BM" + std::string(16, '\0') + Le32(30) + Le32(uint32_t(-50)), 30, 50},
      {"webp VP8X", riff + "VP8X" + Le32(10) + Le32(0) + std::string("\x7F\x02\x00\x3F\x01\x00", 6), 640, 320},
      {"webp VP8L", riff + "VP8L" + Le32(10) + "\x2F" + Le32(99 | 49u << 14), 100, 50},
      {"webp VP8", riff + "VP8 " + Le32(10) + std::string("\0\0\0\x9D\x01\x2A", 6) + Le16(16) + Le16(8), 16, 8},
      {"png cut short", Png(640, 480).substr(0, 20), 0, 0},
      {"not a picture", "hello world, this is text", 0, 0},
  };
  for (const Row& row : rows) {
    int w = 0, h = 0;
    EXPECT_EQ(ReadImageSize(row.bytes, &w, &h), row.width > 0) << row.name;
    EXPECT_TRUE(row.width == 0 || std::make_pair(w, h) == std::make_pair(row.width, row.height)) << row.name;
  }
}

TEST(HtmlTextTest, PlainTextReading) {
  const std::pair<std::u16string, std::u16string> rows[] = {
      {u"<p>Hello<br>World</p>", u"Hello\nWorld\n"},
      {u"a &amp; b &lt;c&gt; &#233; &#x20AC; x&nbsp;y", u"a & b <c> é € x y\n"},
      {u"<html><head><title>T</title><style>p{}</style></head><body><script>var a='<p>';</script>Text</body>",
       u"Text\n"},
      {u"<ul><li>one<li>two</ul>", u"\u2022 one\n\u2022 two\n"},
      {u"<pre>a  b\n  c</pre>after", u"a  b\n  c\nafter\n"},
      {u"a<p></p><p></p><p>b", u"a\n\nb\n"},
      {u"AT&T &bogus; &#xZZ;", u"AT&T &bogus; &#xZZ;\n"},
  };
  for (const auto& [html, text] : rows) EXPECT_EQ(HtmlToPlainText(html), text) << WideToUtf8(html);
  EXPECT_EQ(HtmlBodyContent(u"<html><BODY class=x>in</body></html>"), u"in");
  EXPECT_EQ(HtmlBodyContent(u"no body tag"), u"no body tag");
  EXPECT_EQ(HtmlBodyContent(u"<body>unclosed"), u"unclosed");
}

const std::string kAlternative = Crlf(
    "Content-Type: multipart/alternative; boundary=a\n\n--a\nContent-Type: text/plain\n\nplain text\n--a\n"
    "Content-Type: multipart/related; boundary=r\n\n--r\nContent-Type: text/html\n\n"
    "<html><body><p>rich <img src=\"cid:logo@x\"></p></body></html>\n--r\nContent-Type: image/png\n"
    "Content-ID: <logo@x>\nContent-Transfer-Encoding: base64\n\niVBORw0KGgoAAAANSUhEUgAAAAIAAAAD\n--r--\n--a--\n");

TEST(MessageViewTest, AlternativeChoiceAndPicturesTheHtmlShows) {
  CXmMimeMessage m;
  ASSERT_TRUE(m.ParseText(kAlternative).ok());

  const MessageView plain = BuildMessageView(m);
  ASSERT_EQ(plain.blocks.size(), 1u);
  EXPECT_EQ(std::get<WString>(plain.blocks[0]), u"plain text");
  EXPECT_TRUE(plain.pictures.empty());

  MessageViewOptions options;
  options.prefer_html = true;
  const MessageView rich = BuildMessageView(m, options);
  ASSERT_EQ(rich.blocks.size(), 1u) << "the picture is shown by the HTML itself";
  EXPECT_EQ(std::get<HtmlMarkup>(rich.blocks[0]).html, u"<p>rich <img src=\"cid:logo@x\"></p>");
  ASSERT_EQ(rich.pictures.size(), 1u);
  EXPECT_FALSE(rich.pictures[0].in_document);
  EXPECT_EQ(rich.pictures[0].picture.width, 2);
  EXPECT_EQ(rich.pictures[0].picture.height, 3);
  const CXmMessagePart* logo = FindPictureSource(rich, u"cid:logo@x");
  ASSERT_NE(logo, nullptr);
  EXPECT_EQ(logo->GetContentId(), u"<logo@x>");
  EXPECT_EQ(FindPictureSource(rich, u"cid:other"), nullptr);
}

TEST(MessageViewTest, DocumentWithTextItemsPicturesAndAttachments) {
  const std::string msg =
      Crlf("Content-Type: multipart/mixed; boundary=m\n\n--m\n\nfirst\nline\n--m\nContent-Type: image/gif\n\n") +
      std::string("GIF89a\x04\x00\x05\x00", 10) +
      Crlf("\n--m\nContent-Type: image/x-unknown\n\nnot a picture\n--m\nContent-Type: text/plain\n\nsecond <&>\n"
           "--m\nContent-Type: application/pdf; name=r.pdf\n\npdf\n--m--\n");
  CXmMimeMessage m;
  ASSERT_TRUE(m.ParseText(msg).ok());
  const MessageView view = BuildMessageView(m);
  ASSERT_EQ(view.attachments.size(), 2u);
  EXPECT_EQ(view.attachments[0]->GetContentType(), u"image/x-unknown") << "a picture the view cannot size";
  EXPECT_EQ(view.attachments[1]->GetFileName(), u"r.pdf");
  EXPECT_EQ(view.text_parts.size(), 2u);
  EXPECT_EQ(WideToUtf8(ReadingViewDocument(m)),
            "<HTML><HEAD></HEAD><BODY>\nfirst<br>line<img src=\"inl:1.0\" title=\"\" alt=\"\" width=\"4\" "
            "height=\"5\">\n<br><hr width=\"100%\" size=\"2\"><br>\nsecond &lt;&amp;&gt;</BODY></HTML>");
  EXPECT_EQ(FindPictureSource(view, u"inl:1.0"), m.root().children()[1].get());
}

TEST(MessageViewTest, UnixLineEndsAndDamagedBodies) {
  CXmMimeMessage m;
  ASSERT_TRUE(m.ParseText("Content-Transfer-Encoding: base64\r\n\r\nb25lCnR3*bwo=").ok());  // "one\ntwo\n"
  Result status;
  EXPECT_EQ(WideToUtf8(ReadingViewDocument(m, {}, &status)), "<HTML><HEAD></HEAD><BODY>\none<br>two<br></BODY></HTML>");
  EXPECT_EQ(status, rc::kMimeSyntax) << "what was readable is shown, the status says it was damaged";
}

const std::string kShown = Crlf(
    "From: A <a@x>\nTo: b@x,\n c@x\nSubject: =?utf-8?Q?Gr=C3=BC=C3=9Fe?=\nDate: Tue, 4 Jan 2005 09:05:07 +0100\n"
    "Content-Type: multipart/mixed; boundary=o\n\n--o\nContent-Type: multipart/alternative; boundary=i\n\n--i\n"
    "Content-Type: text/plain; charset=utf-8\nContent-Transfer-Encoding: quoted-printable\n\ncaf=C3=A9\n--i\n"
    "Content-Type: text/html\n\n<p>x</p>\n--i--\n\n--o\nContent-Type: application/pdf; name=r.pdf\n"
    "Content-Disposition: attachment; filename=\"r.pdf\"\nContent-Transfer-Encoding: base64\nContent-ID: <r@x>\n\n"
    "cGRm\n--o--\n");

TEST(MessageShowTest, HeadersTextHtmlAndPartTree) {
  CXmMimeMessage m;
  ASSERT_TRUE(m.ParseText(kShown).ok());
  const std::string headers =
      "From: A <a@x>\nTo: b@x, c@x\nSubject: Grüße\nDate: Tue, 4 Jan 2005 09:05:07 +0100\n";
  EXPECT_EQ(RenderMainHeaders(m), headers);
  // The attachment's size is that of its content, "pdf", not of its base64.
  EXPECT_EQ(RenderMessageText(m), headers + "\ncafé\n[attachment \"r.pdf\", application/pdf, 3 bytes]\n");
  MessageViewOptions html;
  html.prefer_html = true;
  EXPECT_EQ(RenderMessageText(m, html), headers + "\nx\n[attachment \"r.pdf\", application/pdf, 3 bytes]\n");
  EXPECT_EQ(RenderMessageHtml(m, html),
            "<!DOCTYPE html>\n<HTML><HEAD><META charset=\"utf-8\"></HEAD><BODY>\n<p>x</p>\n<HR>\n"
            "[attachment &quot;r.pdf&quot;, application/pdf, 3 bytes]<BR>\n</BODY></HTML>\n");
  EXPECT_EQ(RenderPartTree(m),
            "multipart/mixed  2 parts\n"
            "  multipart/alternative  2 parts\n"
            "    text/plain  9 bytes  quoted-printable  charset=utf-8\n"
            "    text/html  8 bytes  7bit  charset=us-ascii\n"
            "  application/pdf  6 bytes  base64  \"r.pdf\"  attachment  id=<r@x>\n");
  CXmMimeMessage bare;  // absent fields are left out; an unknown body charset is no header problem
  EXPECT_TRUE(bare.ParseText(Crlf("Subject: s\nContent-Type: text/plain; charset=x-unknown\n\nhi\n")).ok());
  EXPECT_EQ(RenderMainHeaders(bare), "Subject: s\n");
  EXPECT_EQ(bare.problems(), 0u);
}

}  // namespace
}  // namespace trv
