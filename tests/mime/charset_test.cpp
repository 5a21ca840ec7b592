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

TEST(ConverterTest, DecodesToUtf16) {
  struct Row { const char* name; const char* charset; std::string in; WString out; bool ok; };
  const Row rows[] = {
      {"latin-1", "iso-8859-1", "Gr\xFC\xDF" "e", u"Gr\u00fc\u00dfe", true},
      {"utf-8 with a pair", "utf-8", "a\xE2\x82\xAC\xF0\x9F\x98\x80", u"a\u20ac\U0001F600", true},
      {"iso-2022-jp", "iso-2022-jp", "\x1b$BF|K\\\x1b(B", u"\u65e5\u672c", true},
      {"utf-16 little-endian", "utf-16", std::string("a\0\xAC\x20", 4), u"a\u20ac", true},
      {"utf-16 with big-endian mark", "utf16", std::string("\xFE\xFF\0a", 4), u"a", true},
      {"imap utf-7", "imap4-utf-7", "Entw&APw-rfe &- x", u"Entw\u00fcrfe & x", true},
      {"invalid utf-8 becomes U+FFFD", "utf-8", "a\xFF" "b", u"a\uFFFDb", false},
      {"truncated utf-8 at the end", "utf-8", "a\xE2\x82", u"a\uFFFD", false},
      {"us-ascii reads 8-bit utf-8 without failing", "us-ascii", "caf\xC3\xA9", u"caf\u00e9", true},
      {"us-ascii reads stray bytes as latin-1", "us-ascii", "caf\xE9", u"caf\u00e9", true},
      {"unknown charset falls back and fails", "x-unknown", "caf\xC3\xA9 \xE9", u"caf\u00e9 \u00e9", false},
      {"malformed imap utf-7", "imap4-utf-7", "a&Jjo!", u"a\u263a\uFFFD!", false},
  };
  for (const Row& r : rows) {
    CXmConverter c(r.charset, "utf-16");
    WString out;
    EXPECT_EQ(c.Convert(std::string_view(r.in), &out), r.ok) << r.name;
    EXPECT_EQ(out, r.out) << r.name;
    EXPECT_EQ(c.last_error(), r.ok ? rc::kOk : rc::kMimeCharset) << r.name;
  }
}

TEST(ConverterTest, EncodesFromUtf16) {
  struct Row { const char* name; const char* charset; WString in; std::string out; bool ok; };
  const Row rows[] = {
      {"latin-1", "iso-8859-1", u"Gr\u00fc\u00dfe", "Gr\xFC\xDF" "e", true},
      {"utf-8", "utf8", u"\u20ac\U0001F600", "\xE2\x82\xAC\xF0\x9F\x98\x80", true},
      {"unmappable becomes ?", "iso-8859-1", u"a\u20acb", "a?b", false},
      {"unmappable pair becomes one ?", "iso-8859-1", u"a\U0001F600b", "a?b", false},
      {"iso-2022-jp ends in ascii state", "iso-2022-jp", u"\u65e5\u672c", "\x1b$BF|K\\\x1b(B", true},
      {"imap utf-7", "imap4-utf-7", u"Entw\u00fcrfe & \u263a", "Entw&APw-rfe &- &Jjo-", true},
      {"unknown charset writes utf-8 and fails", "x-unknown", u"\u00e9", "\xC3\xA9", false},
  };
  for (const Row& r : rows) {
    CXmConverter c("utf-16", r.charset);
    std::string out;
    EXPECT_EQ(c.Convert(WStringView(r.in), &out), r.ok) << r.name;
    EXPECT_EQ(out, r.out) << r.name;
  }
}

TEST(ConverterTest, StrictFlagStopsAtTheFirstFailure) {
  std::string out;
  EXPECT_FALSE(CXmConverter("utf-16", "iso-8859-1").Convert(WStringView(u"ab\u20accd"), &out, kConvertStrict));
  EXPECT_EQ(out, "ab");
  WString wide;
  EXPECT_FALSE(CXmConverter("utf-8", "utf-16").Convert(std::string_view("ab\xFF" "cd"), &wide, kConvertStrict));
  EXPECT_EQ(wide, u"ab");
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

TEST(ConverterTest, ByteBufferForm) {
  std::string out;
  ASSERT_TRUE(CXmConverter("utf-8", "utf-16").Convert("\xE2\x82\xAC", 3, &out));
  EXPECT_EQ(out, std::string("\xAC\x20", 2)) << "utf-16 as bytes is little-endian without mark";
  EXPECT_FALSE(CXmConverter("utf-8", "iso-8859-1").Convert("\xE2\x82\xAC!", 4, &out));
  EXPECT_EQ(out, "?!");
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

TEST(ConverterTest, StreamErrorPaths) {
  CXmViewStream in("ok \xE2\x82\xAC rest");
  CXmMemoryStream out;
  CXmConverter c("utf-8", "iso-8859-1");
  EXPECT_FALSE(c.Convert(in, out, 64, 1)) << "mode 1 stops at the first failure";
  EXPECT_EQ(c.last_error(), rc::kMimeCharset);
  EXPECT_EQ(out.data(), "ok ");

  CXmViewStream abc("abc");
  CXmViewStream read_only("");  // refuses writes
  CXmConverter copy("utf-8", "utf-8");
  EXPECT_FALSE(copy.Convert(abc, read_only, 64, 0));
  EXPECT_EQ(copy.last_error(), rc::kNotImplemented) << "the stream's own code";
}

}  // namespace
}  // namespace trv
