// errno and resolver results onto the 0x80C0 codes, where Linux and the
// codes' meanings do not line up one to one.
#include "net/socket_errors.h"

#include <gtest/gtest.h>
#include <netdb.h>

#include <cerrno>

#include "tests/net/net_test_util.h"

namespace trv {
namespace {

TEST(SocketErrorsTest, Errno) {
  const std::pair<int, Result> rows[] = {
      {0, rc::kOk},
      {EAGAIN, rc::kSockWouldBlock},
      {EINTR, rc::kSockWouldBlock},
      {EPIPE, rc::kSockClosed},        // a write after the peer went away
      {ECONNRESET, rc::kSockClosed},
      {ECONNREFUSED, rc::kSockRefused},
      {ETIMEDOUT, rc::kSockTimedOut},
      {EHOSTUNREACH, rc::kSockHostUnreachable},
      {ENETUNREACH, rc::kSockNetworkDown},
      {EADDRNOTAVAIL, rc::kSockAddressNotAvailable},
      {EBADF, rc::kSockNotSocket},
      {ENOTCONN, rc::kSockNotConnected},
      {ENOSPC, rc::kFail},             // no socket meaning
  };
  for (const auto& [err, want] : rows) EXPECT_EQ(SocketErrorFromErrno(err), want) << err;
}

TEST(SocketErrorsTest, Resolver) {
  EXPECT_EQ(SocketErrorFromResolver(0, 0), rc::kOk);
  EXPECT_EQ(SocketErrorFromResolver(EAI_NONAME, 0), rc::kSockHostNotFound);
  EXPECT_EQ(SocketErrorFromResolver(EAI_AGAIN, 0), rc::kSockTryAgain);
  EXPECT_EQ(SocketErrorFromResolver(EAI_NODATA, 0), rc::kSockNoAddress);
  EXPECT_EQ(SocketErrorFromResolver(EAI_SYSTEM, ECONNREFUSED), rc::kSockRefused) << "takes the saved errno";
  EXPECT_EQ(SocketErrorFromResolver(EAI_FAIL, 0), rc::kFail);
}

TEST(SocketErrorsTest, SecureTransportCodes) {
  EXPECT_EQ(SecureTransportError(0), rc::kTlsFailed) << "no engine code";
  EXPECT_EQ(SecureTransportError(5).code(), 0x80C50005u);
  EXPECT_TRUE(IsSecureTransportError(SecureTransportError(0x12345)));
  EXPECT_EQ(ResultText(SecureTransportError(5)), "The server certificate was not accepted.");
}

}  // namespace
}  // namespace trv
