// TLS through CMailSocket against the scripted server, which speaks TLS from
// a script step on: implicit TLS, the STARTTLS upgrade, and failures inside
// TLS. The certificate decision is tested against the real Dovecot.
#include <gtest/gtest.h>

#include "net/mail_socket.h"
#include "tests/net/net_test_util.h"
#include "tests/support/certificates.h"
#include "tests/support/script_server.h"

namespace trv {
namespace {

using test::Decider;
using test::Line;
using test::ScriptServer;
using test::StateRecorder;

class TlsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_NE(certs_ = test::Certificates(&error), nullptr) << error;
    test::TrustTestCa();
  }
  // A socket for implicit TLS with a time-out of `seconds`.
  static void Implicit(CMailSocket& s, uint16_t seconds = 2) {
    s.SetTimeout(seconds);
    s.SetPlainMode(false).Ignore();
  }
  const test::TestCertificates* certs_ = nullptr;
};

TEST_F(TlsTest, UpgradeDropsWhatArrivedInTheClear) {
  // Bytes after the server's go-ahead came unprotected; after the handshake
  // only what came through TLS may be read.
  ScriptServer server(Script()
                          .ServerLine("+OK ready")
                          .ClientLine("STLS")
                          .Server("+OK begin TLS\r\n-ERR injected\r\n")
                          .StartTls()
                          .ServerLine("+OK protected")
                          .ClientLine("QUIT"),
                      certs_->server);
  CMailSocket s;
  s.SetTimeout(2);
  ASSERT_EQ(s.Connect("127.0.0.1", server.port()), rc::kOk);
  EXPECT_EQ(Line(s), "+OK ready");
  ASSERT_EQ(s.SendLine("STLS"), rc::kOk);
  EXPECT_EQ(Line(s), "+OK begin TLS");
  ASSERT_EQ(s.SetPlainMode(false), rc::kOk) << s.tls_error_detail();
  EXPECT_FALSE(s.plain_mode());
  EXPECT_EQ(Line(s), "+OK protected");
  ASSERT_EQ(s.SendLine("QUIT"), rc::kOk);
  s.Close().Ignore();
  EXPECT_EQ(server.Finish(), "");
}

TEST_F(TlsTest, FailuresInTheHandshakeAndInsideTls) {
  // `tls`: the server speaks TLS; `versions`: offered by the client
  struct Row { const char* name; Script script; bool tls; uint32_t versions; Result connect, read; };
  const Row rows[] = {
      {"a plain server", Script().ServerLine("+OK plain text greeting").Silence(), false, kTlsDefaultVersions,
       SecureTransportError(kTlsEngineNotTls), {}},
      {"no version enabled", Script().StartTls(), true, 0, SecureTransportError(kTlsEngineSetup), {}},
      {"silence", Script().StartTls().Silence(), true, kTlsDefaultVersions, rc::kOk, rc::kSockTimedOut},
      {"close mid-line", Script().StartTls().Server("partial li").Close(), true, kTlsDefaultVersions, rc::kOk,
       rc::kSockClosed},
      {"reset mid-line", Script().StartTls().Server("partial li").Fail(rc::kFail), true, kTlsDefaultVersions,
       rc::kOk, rc::kSockClosed},
  };
  for (const Row& row : rows) {
    ScriptServer server(row.script, row.tls ? certs_->server : test::CertificateFiles{});
    CMailSocket s;
    Implicit(s, 1);
    s.SetTlsVersions(row.versions);
    ASSERT_EQ(s.Connect("localhost", server.port()), row.connect) << row.name;
    if (row.connect.failed()) {
      EXPECT_FALSE(s.connected()) << row.name;
      EXPECT_EQ(s.last_tls_error(), row.connect.code() & 0xFFFF) << row.name;
      EXPECT_FALSE(s.tls_error_detail().empty()) << row.name;
      continue;
    }
    std::string line;
    EXPECT_EQ(s.ReadLine(&line), row.read) << row.name;
    EXPECT_EQ(s.connected(), row.read == rc::kSockTimedOut) << row.name;
  }
}

TEST_F(TlsTest, ImplicitTlsCarriesBulkBytesBothWaysAndClosesGracefully) {
  std::string down, up;
  for (int i = 0; i < 300000; ++i) down.push_back(static_cast<char>((i * 31) ^ (i >> 8)));
  for (int i = 0; i < 200000; ++i) up.push_back(static_cast<char>(i * 13));
  ScriptServer server(Script().StartTls().Server(down).Client(up).Silence(), certs_->server);
  Decider decider;
  StateRecorder rec;  // outlives the socket, whose destructor still notifies
  CMailSocket s;
  rec.Attach(s);
  s.SetCertificateDecider(&decider);
  s.SetGracefulClose(true);
  Implicit(s, 5);
  ASSERT_EQ(s.Connect("localhost", server.port()), rc::kOk) << s.tls_error_detail();
  EXPECT_TRUE(decider.flags.empty()) << "a valid certificate is accepted without asking";
  EXPECT_EQ(s.TlsProtocol(), "TLSv1.3");
  std::string got;
  ASSERT_EQ(s.ReceiveTo(down.size(), [&](std::string_view piece) { return got.append(piece), rc::kOk; }), rc::kOk);
  EXPECT_TRUE(got == down);
  ASSERT_EQ(s.SendAll(up.data(), up.size()), rc::kOk);
  EXPECT_EQ(s.Close(), rc::kOk);
  EXPECT_EQ(rec.Count(kStateClosed), 1);
  EXPECT_EQ(server.Finish(), "");
}

}  // namespace
}  // namespace trv
