#include "core/result.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace trv {
namespace {

TEST(ResultTest, SuccessIsZeroOnlyAndFamiliesMaskTheCode) {
  EXPECT_TRUE(Result(2).failed());  // plain system codes are failures too
  EXPECT_TRUE(rc::kMimeSyntax.failed());
  EXPECT_EQ(Result(0x80C40001).family(), 0x80C4);
  EXPECT_TRUE(IsSocketError(Result(0x80C00014)));
  EXPECT_FALSE(IsSocketError(Result(0x80C10001)));
  EXPECT_TRUE(IsSocksError(Result(0x80C100FD)));
  EXPECT_TRUE(IsSecureTransportError(Result(0x80C5012A)));
  EXPECT_FALSE(IsSecureTransportError(rc::kFail));
}

TEST(ResultTest, EveryCodeHasAText) {
  EXPECT_EQ(ResultText(Result(2)), "The system cannot find the file specified.");
  EXPECT_EQ(ResultText(Result(0x80C00014)), "The connection timed out.");
  EXPECT_EQ(ResultText(Result(0x80C40077)), "IMAP4 error 0x80C40077.");
  EXPECT_EQ(ResultText(Result(0x12345678)), "Unknown error 0x12345678.");
  EXPECT_EQ(ResultHex(rc::kAbort), "0x80004004");
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
