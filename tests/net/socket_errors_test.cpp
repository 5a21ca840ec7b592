// errno and resolver results where Linux and the 0x80C0 codes do not line up
// one to one, and the secure transport codes.
#include "net/socket_errors.h"

#include <gtest/gtest.h>
#include <netdb.h>

#include <cerrno>

#include "tests/net/net_test_util.h"

namespace trv {
namespace {

TEST(SocketErrorsTest, ErrnoResolverAndSecureTransport) {
  const std::pair<int, Result> rows[] = {
      {0, rc::kOk}, {EINTR, rc::kSockWouldBlock}, {EPIPE, rc::kSockClosed}, {ENOSPC, rc::kFail}};
  for (const auto& [err, want] : rows) EXPECT_EQ(SocketErrorFromErrno(err), want) << err;
  EXPECT_EQ(SocketErrorFromResolver(EAI_NONAME, 0), rc::kSockHostNotFound);
  EXPECT_EQ(SocketErrorFromResolver(EAI_SYSTEM, ECONNREFUSED), rc::kSockRefused) << "takes the saved errno";
  EXPECT_EQ(SocketErrorFromResolver(EAI_FAIL, 0), rc::kFail);
  EXPECT_EQ(SecureTransportError(0).code(), 0x80C5012Au) << "no engine code";
  EXPECT_EQ(SecureTransportError(0x20001).code(), 0x80C70001u) << "the engine's code OR-ed in, not masked to 16 bits";
}

TEST(SocketErrorsTest, EveryRegisteredCodeHasItsOwnText) {
  const std::vector<Result> codes = RegisteredResultCodes();
  EXPECT_GT(codes.size(), 60u);
  for (Result code : codes) {
    const std::string text = ResultText(code);
    EXPECT_EQ(text.find(ResultHex(code)), std::string::npos) << ResultHex(code) << ": " << text;
    EXPECT_EQ(text.rfind("System error", 0), std::string::npos) << ResultHex(code);
  }
  EXPECT_EQ(ResultText(Result(0x80C00014)), "The connection timed out.");
  EXPECT_EQ(ResultText(Result(0x80C40077)), "IMAP4 error 0x80C40077.");
}

}  // namespace
}  // namespace trv
