#include "base/wide_string.h"

#include <gtest/gtest.h>

#include "base/utf8.h"

namespace trv {
namespace {

TEST(Utf8Test, Utf8RoundTripIncludingSurrogatePairs) {
  const std::string utf8 = "a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF";
  const WString wide = Utf8ToWide(utf8);
  EXPECT_EQ(wide, u"a\u00e9\u4e2d\U0001F600\U0010FFFF");
  EXPECT_EQ(WideToUtf8(wide), utf8);
}

// Each maximal ill-formed subpart is one U+FFFD. The "utf-8" decoder of the
// character-set layer reads through the same ReadUtf8Sequence.
TEST(Utf8Test, EachMaximalSubpartBecomesOneReplacement) {
  struct Row { const char* name; std::string in; WString out; };
  const Row rows[] = {
      {"cut 3-byte form, then a cut 4-byte form at the end", "\xE2\x82\x41\xF0\x9F\x98", u"\uFFFDA\uFFFD"},
      {"lone continuation", "a\x80z", u"a\uFFFDz"},
      {"truncated at the end", "a\xE4\xB8", u"a\uFFFD"},
      {"overlong two-byte", "\xC0\xAF", u"\uFFFD\uFFFD"},
      {"overlong three-byte", "\xE0\x80\xAF", u"\uFFFD\uFFFD\uFFFD"},
      {"encoded surrogate", "\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD"},
      {"beyond U+10FFFF", "\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"},
      {"invalid lead", "\xFF" "b", u"\uFFFDb"},
      {"lead followed by a lead", "\xC3\xC3\xA9", u"\uFFFD\u00e9"},
  };
  for (const Row& r : rows) {
    WString out;
    EXPECT_FALSE(DecodeUtf8(r.in, &out)) << r.name;
    EXPECT_EQ(out, r.out) << r.name;
    EXPECT_EQ(Utf8ToWide(r.in), r.out) << r.name;
  }
}

TEST(Utf8Test, UnpairedSurrogatesAreReplacedWhenEncoding) {
  std::string out;
  EXPECT_FALSE(EncodeUtf8(u"a\xD800" u"b\xDC00", &out));
  EXPECT_EQ(out, "a\xEF\xBF\xBD" "b\xEF\xBF\xBD");
}

TEST(WideStringTest, CaseFoldingIsAsciiOnly) {
  EXPECT_TRUE(EqualsNoCase("Content-Type", "content-TYPE"));
  EXPECT_TRUE(EqualsNoCase(u"Inbox", u"INBOX"));
  EXPECT_FALSE(EqualsNoCase(u"\u00c9", u"\u00e9"));
  EXPECT_TRUE(StartsWithNoCase("Service.{abc", "service.{"));
  EXPECT_FALSE(StartsWithNoCase("Serv", "Service.{"));
  EXPECT_EQ(TrimView(" \t x y \r\n"), "x y");
}

}  // namespace
}  // namespace trv
