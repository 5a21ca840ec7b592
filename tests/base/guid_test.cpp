#include "base/guid.h"

#include <gtest/gtest.h>

#include <set>

namespace trv {
namespace {

TEST(GuidTest, RegistryFormRoundTripAndByteOrder) {
  auto g = Guid::Parse("{0A1B2C3D-0000-4E5F-8A9B-0C1D2E3F4A5B}");
  ASSERT_TRUE(g.has_value());
  // Data1..Data3 little-endian, Data4 as written.
  const uint8_t expected[16] = {0x3D, 0x2C, 0x1B, 0x0A, 0x00, 0x00, 0x5F, 0x4E,
                                0x8A, 0x9B, 0x0C, 0x1D, 0x2E, 0x3F, 0x4A, 0x5B};
  EXPECT_EQ(0, memcmp(g->bytes.data(), expected, 16));
  EXPECT_EQ(g->ToRegistryString(), "{0A1B2C3D-0000-4E5F-8A9B-0C1D2E3F4A5B}");
  EXPECT_EQ(g->ToLowerString(), "{0a1b2c3d-0000-4e5f-8a9b-0c1d2e3f4a5b}");
  EXPECT_EQ(Guid::Parse(u"{0a1b2c3d-0000-4e5f-8a9b-0c1d2e3f4a5b}"), g);
  EXPECT_EQ(Guid::Nil().ToRegistryString(), "{00000000-0000-0000-0000-000000000000}");
}

TEST(GuidTest, RejectsMalformedText) {
  const char* bad[] = {
      "",
      "{0A1B2C3D-0000-4E5F-8A9B-0C1D2E3F4A5B",     // 37 characters
      "{0A1B2C3D-0000-4E5F-8A9B-0C1D2E3F4A5B}x",   // 39 characters
      "[0A1B2C3D-0000-4E5F-8A9B-0C1D2E3F4A5B]",
      "{0A1B2C3D+0000-4E5F-8A9B-0C1D2E3F4A5B}",
      "{0A1B2C3G-0000-4E5F-8A9B-0C1D2E3F4A5B}",
      "{0A1B2C3D-0000-4E5F-8A9B0-C1D2E3F4A5B}",
  };
  for (const char* t : bad) EXPECT_FALSE(Guid::Parse(t).has_value()) << t;
}

TEST(GuidTest, RandomIdentifiersAreVersion4AndDistinct) {
  std::set<Guid> seen;
  for (int i = 0; i < 1000; ++i) {
    Guid g = Guid::NewRandom();
    EXPECT_EQ(g.bytes[7] >> 4, 4);
    EXPECT_EQ(g.bytes[8] & 0xC0, 0x80);
    EXPECT_EQ(Guid::Parse(g.ToRegistryString()), g);
    seen.insert(g);
  }
  EXPECT_EQ(seen.size(), 1000u);
}

}  // namespace
}  // namespace trv
