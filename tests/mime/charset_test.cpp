// Character sets by name, and the converter between them and UTF-16: whole
// buffers, byte buffers and streams cut at every buffer size.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mime/charset/charset.h"
#include "mime/charset/converter.h"
#include "mime/stream.h"
#include "mime/mime_result.h"

namespace trv {
namespace {

TEST(CharsetTest, NamesAliasesAndTheList) {
  const std::pair<const char*, const char*> rows[] = {
      {"utf8", "utf-8"}, {"Latin1", "iso-8859-1"}, {"ibm850", "ibm850"}};  // the last known to iconv only
  for (const auto& [name, canonical] : rows) {
    auto cs = CreateCharset(name);
    ASSERT_NE(cs, nullptr) << name;
    EXPECT_EQ(cs->Name(), canonical) << name;
  }
  EXPECT_EQ(CreateCharset("x-no-such-charset"), nullptr);
  EXPECT_EQ(CreateCharset(""), nullptr);

  std::vector<std::string> names;
  EnumCharsets([&](const CharsetListing& c) {
    names.push_back(c.mime_name8);
    return names.size() < 3;
  });
  EXPECT_EQ(names.size(), 3u) << "a stop request ends the list";
  for (const std::string& n : names) EXPECT_TRUE(IsKnownCharset(n)) << n;
  DeInitCharsets();
  EXPECT_NE(CreateCharset("utf-8"), nullptr) << "tables come back after DeInitCharsets";
}

// Bytes in a character set to UTF-16 and back; a conversion that fails
// still gives the whole text, with U+FFFD or "?" where it failed.
TEST(ConverterTest, BothDirections) {
  struct Row { const char* name; const char* charset; bool to_bytes; std::string bytes; WString text; bool ok; };
  const Row rows[] = {
      {"latin-1", "iso-8859-1", false, "Gr\xFC\xDF" "e", u"Gr\u00fc\u00dfe", true},
      {"utf-8 with a pair", "utf-8", false, "a\xE2\x82\xAC\xF0\x9F\x98\x80", u"a\u20ac\U0001F600", true},
      {"iso-2022-jp", "iso-2022-jp", false, "\x1b$BF|K\\\x1b(B", u"\u65e5\u672c", true},
      {"utf-16 little-endian", "utf-16", false, std::string("a\0\xAC\x20", 4), u"a\u20ac", true},
      {"utf-16 with big-endian mark", "utf16", false, std::string("\xFE\xFF\0a", 4), u"a", true},
      {"imap utf-7", "imap4-utf-7", false, "Entw&APw-rfe &- x", u"Entw\u00fcrfe & x", true},
      {"invalid utf-8 becomes U+FFFD", "utf-8", false, "a\xFF" "b", u"a\uFFFDb", false},
      {"truncated utf-8 at the end", "utf-8", false, "a\xE2\x82", u"a\uFFFD", false},
      {"us-ascii reads 8-bit utf-8", "us-ascii", false, "caf\xC3\xA9", u"caf\u00e9", true},
      {"us-ascii reads stray bytes as latin-1", "us-ascii", false, "caf\xE9", u"caf\u00e9", true},
      {"unknown charset falls back and fails", "x-unknown", false, "caf\xC3\xA9 \xE9", u"caf\u00e9 \u00e9", false},
      {"malformed imap utf-7", "imap4-utf-7", false, "a&Jjo!", u"a\u263a\uFFFD!", false},
      {"to latin-1", "iso-8859-1", true, "Gr\xFC\xDF" "e", u"Gr\u00fc\u00dfe", true},
      {"to utf-8", "utf8", true, "\xE2\x82\xAC\xF0\x9F\x98\x80", u"\u20ac\U0001F600", true},
      {"unmappable becomes ?", "iso-8859-1", true, "a?b", u"a\u20acb", false},
      {"unmappable pair becomes one ?", "iso-8859-1", true, "a?b", u"a\U0001F600b", false},
      {"iso-2022-jp ends in ascii state", "iso-2022-jp", true, "\x1b$BF|K\\\x1b(B", u"\u65e5\u672c", true},
      {"to imap utf-7", "imap4-utf-7", true, "Entw&APw-rfe &- &Jjo-", u"Entw\u00fcrfe & \u263a", true},
      {"unknown charset writes utf-8 and fails", "x-unknown", true, "\xC3\xA9", u"\u00e9", false},
  };
  for (const Row& r : rows) {
    CXmConverter c(r.to_bytes ? "utf-16" : r.charset, r.to_bytes ? r.charset : "utf-16");
    std::string bytes;
    WString text;
    EXPECT_EQ(r.to_bytes ? c.Convert(WStringView(r.text), &bytes) : c.Convert(std::string_view(r.bytes), &text), r.ok)
        << r.name;
    EXPECT_EQ(r.to_bytes ? bytes : WideToUtf8(text), r.to_bytes ? r.bytes : WideToUtf8(r.text)) << r.name;
    EXPECT_EQ(c.last_error(), r.ok ? rc::kOk : rc::kMimeCharset) << r.name;
  }
}

// Every form stops at the first failure when asked to, and keeps what it
// converted before it; a stream's own failure code is passed on.
TEST(ConverterTest, FailuresInEveryForm) {
  std::string out;
  EXPECT_FALSE(CXmConverter("utf-16", "iso-8859-1").Convert(WStringView(u"ab\u20accd"), &out, kConvertStrict));
  EXPECT_EQ(out, "ab");
  WString wide;
  EXPECT_FALSE(CXmConverter("utf-8", "utf-16").Convert(std::string_view("ab\xFF" "cd"), &wide, kConvertStrict));
  EXPECT_EQ(wide, u"ab");
  ASSERT_TRUE(CXmConverter("utf-8", "utf-16").Convert("\xE2\x82\xAC", 3, &out));
  EXPECT_EQ(out, std::string("\xAC\x20", 2)) << "utf-16 as bytes is little-endian without mark";
  EXPECT_FALSE(CXmConverter("utf-8", "iso-8859-1").Convert("\xE2\x82\xAC!", 4, &out));
  EXPECT_EQ(out, "?!");

  CXmViewStream in("ok \xE2\x82\xAC rest"), abc("abc"), read_only("");
  CXmMemoryStream stream_out;
  CXmConverter c("utf-8", "iso-8859-1"), copy("utf-8", "utf-8");
  EXPECT_FALSE(c.Convert(in, stream_out, 64, 1)) << "mode 1 stops at the first failure";
  EXPECT_EQ(c.last_error(), rc::kMimeCharset);
  EXPECT_EQ(stream_out.data(), "ok ");
  EXPECT_FALSE(copy.Convert(abc, read_only, 64, 0));
  EXPECT_EQ(copy.last_error(), rc::kNotImplemented) << "the stream's own code";
}

TEST(ConverterTest, ImapUtf7RoundTrip) {
  for (const WString& name : {WString(u"&&"), WString(u"\u65e5\u672c\u8a9e"), WString(u"a\U0001F600b"),
                              WString(u"~/-+,"), WString(u"\u00e9\u00e9\u00e9\u00e9\u00e9")}) {
    std::string bytes;
    ASSERT_TRUE(CXmConverter("utf-16", "imap4-utf-7").Convert(WStringView(name), &bytes));
    for (unsigned char b : bytes) ASSERT_TRUE(b >= 0x20 && b < 0x7F);
    WString back;
    ASSERT_TRUE(CXmConverter("imap4-utf-7", "utf-16").Convert(std::string_view(bytes), &back)) << bytes;
    EXPECT_EQ(back, name) << bytes;
  }
}

TEST(ConverterTest, StreamFormGivesTheSameResultForEveryBufferSize) {
  // Multi-byte sequences fall across buffer edges for every size.
  const std::string utf8 = "Gr\xC3\xBC\xC3\x9F" "e \xE2\x82\xAC \xF0\x9F\x98\x80 \xE6\x97\xA5\xE6\x9C\xAC end";
  const std::string jis = "a\x1b$BF|K\\\x1b(Bb";
  for (size_t size = 1; size <= 40; ++size) {
    CXmViewStream in(utf8);
    CXmMemoryStream out;
    EXPECT_FALSE(CXmConverter("utf-8", "iso-8859-15").Convert(in, out, size, 0)) << "the pair and CJK do not fit";
    EXPECT_EQ(out.data(), "Gr\xFC\xDF" "e \xA4 ? ?? end") << size;

    CXmViewStream in2(jis);
    CXmMemoryStream out2;
    ASSERT_TRUE(CXmConverter("iso-2022-jp", "utf-8").Convert(in2, out2, size, 0)) << size;
    EXPECT_EQ(out2.data(), "a\xE6\x97\xA5\xE6\x9C\xAC" "b") << size;
  }
}

}  // namespace
}  // namespace trv
