#include "base/byte_io.h"

#include <gtest/gtest.h>

namespace trv {
namespace {

TEST(ByteIoTest, LittleEndianRoundTrip) {
  std::string buf;
  ByteWriter w(&buf);
  w.U8(0xAB);
  w.U16(0x1234);
  w.U32(0xDEADBEEF);
  w.I32(-2);
  w.U64(0x0102030405060708ull);
  w.F64(38353.25);
  EXPECT_EQ(buf.substr(0, 7), std::string("\xAB\x34\x12\xEF\xBE\xAD\xDE", 7));

  ByteReader r(buf);
  uint8_t a; uint16_t b; uint32_t c; int32_t d; uint64_t e; double f;
  ASSERT_TRUE(r.U8(a) && r.U16(b) && r.U32(c) && r.I32(d) && r.U64(e) && r.F64(f));
  EXPECT_EQ(a, 0xAB);
  EXPECT_EQ(b, 0x1234);
  EXPECT_EQ(c, 0xDEADBEEFu);
  EXPECT_EQ(d, -2);
  EXPECT_EQ(e, 0x0102030405060708ull);
  EXPECT_EQ(f, 38353.25);
  EXPECT_EQ(r.remaining(), 0u);
  EXPECT_FALSE(r.U8(a));
}

TEST(ByteIoTest, WideStringCodec) {
  std::string buf;
  ByteWriter w(&buf);
  w.WStr(u"Inbox");
  w.WStr(u"");
  w.WStr(u"\u00e9\u4e2d");
  EXPECT_EQ(buf.substr(0, 6), std::string("\x05\x00\x00\x00I\x00", 6));
  EXPECT_EQ(buf.size(), 4 + 10 + 4 + 4 + 4u);

  ByteReader r(buf);
  WString s;
  ASSERT_TRUE(r.WStr(s));
  EXPECT_EQ(s, u"Inbox");
  ASSERT_TRUE(r.WStr(s));
  EXPECT_EQ(s, u"");
  ASSERT_TRUE(r.WStr(s));
  EXPECT_EQ(s, u"\u00e9\u4e2d");
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

  std::string buf;
  ByteWriter w(&buf);
  w.I32(0x7FFFFFFF);
  w.U16('a');
  ByteReader r(buf);
  EXPECT_FALSE(r.WStr(s));
  EXPECT_EQ(r.pos(), 0u);
  EXPECT_FALSE(r.SkipWStr());

  std::string ok;
  ByteWriter w2(&ok);
  w2.WStr(u"abcdef");
  ByteReader r2(ok);
  EXPECT_FALSE(r2.WStr(s, 5));  // over the caller's own limit
  EXPECT_TRUE(r2.SkipWStr());
  EXPECT_EQ(r2.remaining(), 0u);
}

}  // namespace
}  // namespace trv
