#include "base/result.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace trv {
namespace {

TEST(ResultTest, SuccessIsZeroOnlyAndFamiliesMaskTheCode) {
  EXPECT_TRUE(Result(2).failed());  // plain system codes are failures too
  EXPECT_TRUE(Result(0xA0003000).failed());
  EXPECT_EQ(Result(0x80C40001).family(), 0x80C4);
  EXPECT_TRUE(IsSocketError(Result(0x80C00014)));
  EXPECT_FALSE(IsSocketError(Result(0x80C10001)));
  EXPECT_TRUE(IsSocksError(Result(0x80C100FD)));
  EXPECT_TRUE(IsSecureTransportError(Result(0x80C5012A)));
  EXPECT_FALSE(IsSecureTransportError(rc::kFail));
}

TEST(ResultTest, RegisteredTextsAndFallbacks) {
  EXPECT_EQ(ResultText(Result(2)), "The system cannot find the file specified.");
  EXPECT_EQ(ResultText(Result(0x8007FFFF)), "System error 65535.");
  EXPECT_EQ(ResultText(Result(0x12345678)), "Unknown error 0x12345678.");
  EXPECT_EQ(ResultHex(rc::kAbort), "0x80004004");

  static constexpr ResultTextEntry kTexts[] = {{0x80AB0001, "First."}, {0x00000002, "Not the first text."}};
  static constexpr ResultFamilyEntry kFamilies[] = {{0x80AB, "Test error"}};
  static constexpr ResultTextTable kTable{kTexts, 2, kFamilies, 1};
  EXPECT_TRUE(RegisterResultTexts(kTable));
  EXPECT_TRUE(RegisterResultTexts(kTable));  // a second registration adds nothing
  EXPECT_EQ(ResultText(Result(0x80AB0001)), "First.");
  EXPECT_EQ(ResultText(Result(0x80AB0002)), "Test error 0x80AB0002.");
  EXPECT_EQ(ResultText(Result(2)), "The system cannot find the file specified.");  // the first text stays
}

TEST(ResultTest, ErrnoMapsToSystemCodes) {
  EXPECT_EQ(ResultFromErrno(0), rc::kOk);
  EXPECT_EQ(ResultFromErrno(ENOENT).code(), 0x80070002u);
  EXPECT_EQ(ResultFromErrno(ENOSPC).code(), 0x80070070u);
  EXPECT_EQ(ResultFromErrno(ENOMEM), rc::kOutOfMemory);
  EXPECT_EQ(ResultText(ResultFromErrno(ENOSPC)), "There is not enough space on the disk.");
}

}  // namespace
}  // namespace trv
