// Result texts, GUIDs, damaged counts in the byte codec, and UTF-8.
#include <gtest/gtest.h>

#include <cerrno>
#include <set>

#include "base/byte_io.h"
#include "base/guid.h"
#include "base/result.h"
#include "base/utf8.h"

namespace trv {
namespace {

TEST(ResultTest, RegisteredTextsFallbacksAndErrno) {
  EXPECT_EQ(ResultText(Result(0x8007FFFF)), "System error 65535.");
  EXPECT_EQ(ResultText(Result(0x12345678)), "Unknown error 0x12345678.");
  static constexpr ResultTextEntry kTexts[] = {{0x80AB0001, "First."}, {0x00000002, "Not the first text."}};
  static constexpr ResultFamilyEntry kFamilies[] = {{0x80AB, "Test error"}};
  static constexpr ResultTextTable kTable{kTexts, 2, kFamilies, 1};
  EXPECT_TRUE(RegisterResultTexts(kTable));
  EXPECT_TRUE(RegisterResultTexts(kTable));  // a second registration adds nothing
  EXPECT_EQ(ResultText(Result(0x80AB0001)), "First.");
  EXPECT_EQ(ResultText(Result(0x80AB0002)), "Test error 0x80AB0002.");
  EXPECT_EQ(ResultText(Result(2)), "The system cannot find the file specified.");  // the first text stays
  EXPECT_TRUE(Result(2).failed()) << "plain system codes are failures too";
  EXPECT_EQ(ResultFromErrno(0), rc::kOk);
  EXPECT_EQ(ResultFromErrno(ENOENT).code(), 0x80070002u);
  EXPECT_EQ(ResultFromErrno(ENOMEM), rc::kOutOfMemory);
  EXPECT_EQ(ResultText(ResultFromErrno(ENOSPC)), "There is not enough space on the disk.");
}

TEST(GuidTest, RegistryFormByteOrderAndMalformedText) {
  auto g = Guid::Parse("{0A1B2C3D-0000-4E5F-8A9B-0C1D2E3F4A5B}");
  ASSERT_TRUE(g.has_value());
  // Data1..Data3 little-endian, Data4 as written.
  const uint8_t expected[16] = {0x3D, 0x2C, 0x1B, 0x0A, 0x00, 0x00, 0x5F, 0x4E,
                                0x8A, 0x9B, 0x0C, 0x1D, 0x2E, 0x3F, 0x4A, 0x5B};
  EXPECT_EQ(0, memcmp(g->bytes.data(), expected, 16));
  EXPECT_EQ(g->ToRegistryString(), "{0A1B2C3D-0000-4E5F-8A9B-0C1D2E3F4A5B}");
  EXPECT_EQ(g->ToLowerString(), "{0a1b2c3d-0000-4e5f-8a9b-0c1d2e3f4a5b}");
  EXPECT_EQ(Guid::Parse(u"{0a1b2c3d-0000-4e5f-8a9b-0c1d2e3f4a5b}"), g);
  for (const char* bad : {"", "{0A1B2C3D-0000-4E5F-8A9B-0C1D2E3F4A5B}x", "{0A1B2C3D+0000-4E5F-8A9B-0C1D2E3F4A5B}",
                          "{0A1B2C3G-0000-4E5F-8A9B-0C1D2E3F4A5B}", "{0A1B2C3D-0000-4E5F-8A9B0-C1D2E3F4A5B}"}) {
    EXPECT_FALSE(Guid::Parse(bad).has_value()) << bad;
  }
  std::set<Guid> seen;
  for (int i = 0; i < 1000; ++i) {
    const Guid r = Guid::NewRandom();
    EXPECT_EQ(r.bytes[7] >> 4, 4) << "version 4";
    EXPECT_EQ(r.bytes[8] & 0xC0, 0x80);
    EXPECT_EQ(Guid::Parse(r.ToRegistryString()), r);
    seen.insert(r);
  }
  EXPECT_EQ(seen.size(), 1000u);
}

// A negative count is an empty string; a damaged count must never read or
// allocate past the buffer.
TEST(ByteIoTest, CountsOutsideTheBuffer) {
  const std::string negative("\xFF\xFF\xFF\xFFrest", 8);
  ByteReader n(negative);
  WString s = u"x";
  ASSERT_TRUE(n.WStr(s));
  EXPECT_TRUE(s.empty());
  EXPECT_EQ(n.pos(), 4u);
  std::string buf, ok;
  ByteWriter(&buf).I32(0x7FFFFFFF);
  ByteWriter(&buf).U16('a');
  ByteReader r(buf);
  EXPECT_FALSE(r.WStr(s));
  EXPECT_EQ(r.pos(), 0u);
  EXPECT_FALSE(r.SkipWStr());
  ByteWriter(&ok).WStr(u"abcdef");
  ByteReader r2(ok);
  EXPECT_FALSE(r2.WStr(s, 5));  // over the caller's own limit
  EXPECT_TRUE(r2.SkipWStr());
  EXPECT_EQ(r2.remaining(), 0u);
}

// Each maximal ill-formed subpart is one U+FFFD. The "utf-8" decoder of the
// character-set layer reads through the same ReadUtf8Sequence.
TEST(Utf8Test, RoundTripAndEachMaximalSubpartBecomesOneReplacement) {
  const std::string utf8 = "a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF";
  EXPECT_EQ(Utf8ToWide(utf8), u"a\u00e9\u4e2d\U0001F600\U0010FFFF");
  EXPECT_EQ(WideToUtf8(Utf8ToWide(utf8)), utf8);
  struct Row { const char* name; std::string in; WString out; };
  const Row rows[] = {
      {"cut 3-byte form, then a cut 4-byte form at the end", "\xE2\x82\x41\xF0\x9F\x98", u"\uFFFDA\uFFFD"},
      {"lone continuation", "a\x80z", u"a\uFFFDz"},
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
  }
  std::string out;
  EXPECT_FALSE(EncodeUtf8(u"a\xD800" u"b\xDC00", &out)) << "unpaired surrogates";
  EXPECT_EQ(out, "a\xEF\xBF\xBD" "b\xEF\xBF\xBD");
}

}  // namespace
}  // namespace trv
