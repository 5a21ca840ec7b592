#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mime/charset/charset.h"
#include "mime/charset/converter.h"
#include "mime/stream.h"

namespace trv {
namespace {

TEST(CharsetTest, CreateCharsetKnowsTheSystemsNamesAndIconvs) {
  struct Row { const char* name; const char* canonical; };
  const Row rows[] = {
      {"us-ascii", "us-ascii"},     {"UTF-8", "utf-8"},       {"utf8", "utf-8"},
      {"utf-16", "utf-16"},         {"UTF16", "utf-16"},      {"iso-8859-1", "iso-8859-1"},
      {"Latin1", "iso-8859-1"},     {"imap4-utf-7", "imap4-utf-7"},
      {"windows-1252", "windows-1252"}, {"ibm850", "ibm850"},  // known to iconv only
  };
  for (const Row& r : rows) {
    auto cs = CreateCharset(r.name);
    ASSERT_NE(cs, nullptr) << r.name;
    EXPECT_EQ(cs->Name(), r.canonical) << r.name;
    EXPECT_FALSE(cs->DisplayName().empty()) << r.name;
  }
  EXPECT_EQ(CreateCharset("x-no-such-charset"), nullptr);
  EXPECT_EQ(CreateCharset(""), nullptr);
  EXPECT_FALSE(IsKnownCharset("x-no-such-charset"));
  EXPECT_EQ(CreateCharset("iso-8859-1")->DisplayName(), u"Western European (ISO)");
}

TEST(CharsetTest, EnumCharsetsListsTheTableAndStopsOnRequest) {
  struct Seen { std::vector<std::string> names; int stop_after = -1; };
  auto proc = [](const WString& display, const WString& mime16, const std::string& mime8,
                 const std::string& system, void* user, bool* stop) {
    auto* seen = static_cast<Seen*>(user);
    EXPECT_FALSE(display.empty());
    EXPECT_EQ(mime16, Latin1ToWide(mime8));
    EXPECT_FALSE(system.empty());
    seen->names.push_back(mime8);
    if (static_cast<int>(seen->names.size()) == seen->stop_after) *stop = true;
  };
  Seen all;
  EnumCharsets(proc, &all);
  ASSERT_GE(all.names.size(), 20u);
  EXPECT_EQ(all.names[0], "us-ascii");
  for (const std::string& n : all.names) EXPECT_TRUE(IsKnownCharset(n)) << n;
  Seen some;
  some.stop_after = 3;
  EnumCharsets(proc, &some);
  EXPECT_EQ(some.names.size(), 3u);
  EnumCharsets(nullptr, nullptr);  // no callback: nothing happens
  DeInitCharsets();
  EXPECT_NE(CreateCharset("utf-8"), nullptr) << "tables come back after DeInitCharsets";
}

TEST(ConverterTest, DecodesToUtf16) {
  struct Row { const char* name; const char* charset; std::string in; WString out; bool ok; };
  const Row rows[] = {
      {"latin-1", "iso-8859-1", "Gr\xFC\xDF" "e", u"Gr\u00fc\u00dfe", true},
      {"utf-8 with a pair", "utf-8", "a\xE2\x82\xAC\xF0\x9F\x98\x80", u"a\u20ac\U0001F600", true},
      {"windows-1252 euro", "windows-1252", "\x80", u"\u20ac", true},
      {"koi8-r", "koi8-r", "\xF0\xD2\xC9", u"\u041f\u0440\u0438", true},
      {"shift_jis", "shift_jis", "\x93\xfa\x96\x7b", u"\u65e5\u672c", true},
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
      {"ascii", "us-ascii", u"ab\u00e9", "ab?", false},
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
  CXmConverter c("utf-16", "iso-8859-1");
  std::string out;
  EXPECT_FALSE(c.Convert(WStringView(u"ab\u20accd"), &out, kConvertStrict));
  EXPECT_EQ(out, "ab");
  CXmConverter d("utf-8", "utf-16");
  WString wide;
  EXPECT_FALSE(d.Convert(std::string_view("ab\xFF" "cd"), &wide, kConvertStrict));
  EXPECT_EQ(wide, u"ab");
}

TEST(ConverterTest, ImapUtf7RoundTrip) {
  const WString names[] = {u"INBOX", u"&&", u"\u65e5\u672c\u8a9e", u"a\U0001F600b", u"~/-+,", u"\u00e9",
                           u"Gel\u00f6schte Objekte", u"\u00e9\u00e9\u00e9\u00e9\u00e9"};
  for (const WString& name : names) {
    std::string bytes;
    ASSERT_TRUE(CXmConverter("utf-16", "imap4-utf-7").Convert(WStringView(name), &bytes));
    for (unsigned char b : bytes) ASSERT_TRUE(b >= 0x20 && b < 0x7F);
    WString back;
    ASSERT_TRUE(CXmConverter("imap4-utf-7", "utf-16").Convert(std::string_view(bytes), &back)) << bytes;
    EXPECT_EQ(back, name) << bytes;
  }
}

TEST(ConverterTest, ByteBufferFormConvertsBetweenTwo8BitSets) {
  CXmConverter c("iso-8859-1", "utf-8");
  std::string out;
  ASSERT_TRUE(c.Convert("caf\xE9", 4, &out));
  EXPECT_EQ(out, "caf\xC3\xA9");
  CXmConverter to16("utf-8", "utf-16");
  ASSERT_TRUE(to16.Convert("\xE2\x82\xAC", 3, &out));
  EXPECT_EQ(out, std::string("\xAC\x20", 2)) << "utf-16 as bytes is little-endian without mark";
  CXmConverter bad("utf-8", "iso-8859-1");
  EXPECT_FALSE(bad.Convert("\xE2\x82\xAC!", 4, &out));
  EXPECT_EQ(out, "?!");
}

TEST(ConverterTest, StreamFormGivesTheSameResultForEveryBufferSize) {
  // Multi-byte sequences fall across buffer edges for every size.
  const std::string utf8 = "Gr\xC3\xBC\xC3\x9F" "e \xE2\x82\xAC \xF0\x9F\x98\x80 \xE6\x97\xA5\xE6\x9C\xAC end";
  const std::string jis = "a\x1b$BF|K\\\x1b(Bb";
  for (size_t size = 1; size <= 40; ++size) {
    CXmViewStream in(utf8);
    CXmMemoryStream out;
    CXmConverter c("utf-8", "iso-8859-15");
    EXPECT_FALSE(c.Convert(in, out, size, 0)) << "the pair and the CJK characters do not fit";
    EXPECT_EQ(out.data(), "Gr\xFC\xDF" "e \xA4 ? ?? end") << size;

    CXmViewStream in2(jis);
    CXmMemoryStream out2;
    ASSERT_TRUE(CXmConverter("iso-2022-jp", "utf-8").Convert(in2, out2, size, 0)) << size;
    EXPECT_EQ(out2.data(), "a\xE6\x97\xA5\xE6\x9C\xAC" "b") << size;
  }
}

TEST(ConverterTest, StreamModeOneStopsAtTheFirstFailure) {
  CXmViewStream in("ok \xE2\x82\xAC rest");
  CXmMemoryStream out;
  CXmConverter c("utf-8", "iso-8859-1");
  EXPECT_FALSE(c.Convert(in, out, 64, 1));
  EXPECT_EQ(c.last_error(), rc::kMimeCharset);
  EXPECT_EQ(out.data(), "ok ");
}

TEST(ConverterTest, StreamErrorsAreReportedAsTheStreamsCode) {
  CXmViewStream in("abc");
  CXmViewStream read_only("");  // refuses writes
  CXmConverter c("utf-8", "utf-8");
  EXPECT_FALSE(c.Convert(in, read_only, 64, 0));
  EXPECT_EQ(c.last_error(), rc::kNotImplemented);
}

}  // namespace
}  // namespace trv
