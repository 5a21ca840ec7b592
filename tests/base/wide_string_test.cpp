#include "base/wide_string.h"

#include <gtest/gtest.h>

namespace trv {
namespace {

TEST(WideStringTest, Utf8RoundTripIncludingSurrogatePairs) {
  const std::string utf8 = "a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80";
  const WString wide = Utf8ToWide(utf8);
  EXPECT_EQ(wide, u"a\u00e9\u4e2d\U0001F600");
  EXPECT_EQ(WideToUtf8(wide), utf8);
}

TEST(WideStringTest, MalformedInputBecomesReplacementCharacters) {
  struct Row { const char* name; std::string in; WString out; };
  const Row rows[] = {
      {"lone continuation", "a\x80z", u"a\uFFFDz"},
      {"truncated sequence at end", "a\xE4\xB8", u"a\uFFFD"},
      {"overlong", "\xC0\xAF", u"\uFFFD"},
      {"encoded surrogate", "\xED\xA0\x80", u"\uFFFD"},
      {"invalid lead", "\xFF", u"\uFFFD"},
  };
  for (const Row& r : rows) EXPECT_EQ(Utf8ToWide(r.in), r.out) << r.name;
  EXPECT_EQ(WideToUtf8(WString(1, char16_t(0xD800))), "\xEF\xBF\xBD");
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
