#include "core/settings_value.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace trv {
namespace {

// Each UTF-16 unit is encoded by itself, so every unit comes back; a text
// with the mark decodes, a hand edit's four-byte form too, stray bytes as
// U+FFFD.
TEST(SettingsWideTest, EncodingAndDecoding) {
  const std::pair<WString, std::string> encoded[] = {
      {u"\U0001F600", "\xEF\xBB\xBF\xED\xA0\xBD\xED\xB8\x80"},  // the pair not combined
      {u"a\r\nb", "\xEF\xBB\xBF" "a\xC0\x8D\xC0\x8A" "b"},      // line breaks keep the line whole
      {WString(1, u'\0'), std::string("\xEF\xBB\xBF\0", 4)},
  };
  for (const auto& [text, bytes] : encoded) EXPECT_EQ(EncodeSettingsWide(text), bytes);
  const std::pair<std::string, std::optional<WString>> decoded[] = {
      {"Work", std::nullopt}, {"\xEF\xBB\xBF\xF0\x9F\x98\x80", u"\U0001F600"},
      {"\xEF\xBB\xBF" "a\x80" "b", u"a\uFFFDb"}, {"\xEF\xBB\xBF\xE9t\xE9", u"\uFFFDt\uFFFD"}};
  for (const auto& [bytes, text] : decoded) EXPECT_EQ(DecodeSettingsWide(bytes), text) << bytes;
  WString all;
  for (uint32_t u = 0; u <= 0xFFFF; ++u) all.push_back(static_cast<char16_t>(u));
  EXPECT_EQ(EncodeSettingsWide(all).find_first_of("\r\n"), std::string::npos);
  EXPECT_EQ(DecodeSettingsWide(EncodeSettingsWide(all)), all);
}

TEST(SettingsBinaryTest, EncodingAndDecoding) {
  const std::vector<uint8_t> bytes = {0x00, 0x7F, 0xAB, 0xFF};
  EXPECT_EQ(EncodeSettingsBinary(bytes), "584D007FABFF");
  const std::pair<const char*, std::optional<std::vector<uint8_t>>> rows[] = {
      {"584d007fabff", std::nullopt},  // the mark itself is exact
      {"584D007fabff", bytes}, {"", std::vector<uint8_t>()}, {"584D0", std::nullopt}, {"584D0G", std::nullopt},
      {"007F", std::nullopt}};
  for (const auto& [text, want] : rows) EXPECT_EQ(DecodeSettingsBinary(text), want) << text;
}

TEST(SettingsTextTypeTest, TypeIsDecidedFromTheText) {
  struct Row { const char* in; SettingsData out; };
  const Row rows[] = {
      {"TRUE", true}, {"False", false}, {"2147483647", 2147483647}, {"-2147483648", INT32_MIN},
      // Texts that "%ld" would not print back identically stay text.
      {"007", std::string("007")}, {"-0", std::string("-0")}, {"2147483648", std::string("2147483648")},
      {" 5", std::string(" 5")}, {"0x10", std::string("0x10")}, {"truer", std::string("truer")},
  };
  for (const Row& r : rows) EXPECT_EQ(ParseSettingsText(r.in), r.out) << "text \"" << r.in << "\"";
}

TEST(SettingsDoubleTest, WrittenAsPercentFAndReadBack) {
  // Same text as the C library's "%f" (the test runs in the C locale).
  for (const double v : {1.5, -0.25, 0.0, 1.0000007, 0.0000005, 123456.7890123, -1e-9, 1e20, 4294967296.5}) {
    char expected[400];
    std::snprintf(expected, sizeof expected, "%f", v);
    EXPECT_EQ(FormatSettingsDouble(v), expected);
    const std::optional<double> back = ParseSettingsDouble(expected);
    ASSERT_TRUE(back.has_value()) << expected;
    EXPECT_NEAR(*back, v, 5e-7 * std::max(1.0, std::fabs(v))) << expected;
  }
  EXPECT_TRUE(std::isinf(*ParseSettingsDouble(FormatSettingsDouble(INFINITY))));
  EXPECT_FALSE(ParseSettingsDouble("1.5x").has_value());
  EXPECT_FALSE(ParseSettingsDouble("").has_value());
}

}  // namespace
}  // namespace trv
