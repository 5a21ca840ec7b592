// TLS against the real Dovecot: implicit TLS and the STLS upgrade through
// SOCKS 5 proxies (direct ones are in the clients' servers tests); the
// certificate flags of expired, self-signed and misnamed certificates and the
// decision on them; the protocol versions.
#include <gtest/gtest.h>

#include "net/mail_socket.h"
#include "tests/net/net_test_util.h"
#include "tests/support/mail_servers.h"

namespace trv {
namespace {

using test::Decider;
using test::MailServers;
using test::MailUser;
using test::ReadUntil;

class DovecotTlsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TRV_REQUIRE_SERVER(servers().Dovecot());
    test::TrustTestCa();
  }
  static MailServers& servers() { return MailServers::Instance(); }
  static const test::ServerPorts& ports() { return MailServers::Instance().ports(); }
};

TEST_F(DovecotTlsTest, ImplicitOrAfterThePlainGreeting) {
  const MailUser& u = MailServers::MicrosocksUser();
  struct Row {
    const char* name;
    test::ServerStatus status;
    uint16_t port;
    uint16_t proxy;  // SOCKS 5 (with u's credentials when it is microsocks_auth); 0: direct
    const char* greeting;
    const char* upgrade;  // null: TLS from the first byte
    const char* go;       // the start of the last line of the reply to the upgrade
    const char* then;
    const char* done;  // ... and of the reply to a command inside TLS
  };
  const Row rows[] = {
      {"IMAPS through SOCKS 5 with user and password", servers().Microsocks(), ports().imaps,
       ports().microsocks_auth, "* OK", nullptr, "", "a LOGOUT", "a OK"},
      {"POP3 STLS through Dante", servers().Dante(), ports().pop3, ports().dante, "+OK", "STLS", "+OK", "CAPA",
       "."},
  };
  for (const Row& row : rows) {
    TRV_REQUIRE_SERVER(row.status);
    Decider decider;
    CMailSocket s;
    s.SetTimeout(5);
    s.SetCertificateDecider(&decider);
    if (row.proxy) s.SetSocks(kSocks5, "127.0.0.1", row.proxy);
    s.SetSocksCredentials(row.proxy == ports().microsocks_auth, u.name, u.password);
    s.SetPlainMode(row.upgrade != nullptr).Ignore();  // before connecting it cannot fail
    ASSERT_EQ(s.Connect("localhost", row.port), rc::kOk) << row.name << ": " << s.tls_error_detail();
    std::vector<std::string> lines;
    ASSERT_EQ(ReadUntil(s, row.greeting, &lines), rc::kOk) << row.name;
    if (row.upgrade) {
      ASSERT_EQ(s.SendLine(row.upgrade), rc::kOk);
      ASSERT_EQ(ReadUntil(s, row.go, &lines), rc::kOk) << row.name;
      // The certificate names localhost, not the proxy's address.
      ASSERT_EQ(s.SetPlainMode(false), rc::kOk) << row.name << ": " << s.tls_error_detail();
    }
    EXPECT_TRUE(decider.flags.empty()) << row.name;
    ASSERT_EQ(s.SendLine(row.then), rc::kOk);
    EXPECT_EQ(ReadUntil(s, row.done, &lines), rc::kOk) << row.name;
  }
}

TEST_F(DovecotTlsTest, CertificateFlags) {
  // Dovecot serves a certificate by the local address it was reached at.
  // `subject`: part of what the decider is shown
  struct Row { const char* host; uint32_t flags; const char* subject; };
  const Row rows[] = {
      {"localhost", 0, ""},
      {"127.0.0.1", 0, ""},
      {"127.0.0.2", kCertExpired, "localhost"},
      {"127.0.0.3", kCertUntrustedRoot, "localhost"},
      {"127.0.0.4", kCertNameMismatch, "mail.other.test"},
  };
  for (const Row& row : rows) {
    for (int mode = 0; mode < 3; ++mode) {  // no callback, refusing, accepting
      Decider decider;
      decider.answer = mode == 2;
      CMailSocket s;
      s.SetTimeout(5);
      if (mode > 0) s.SetCertificateDecider(&decider);
      s.SetPlainMode(false).Ignore();
      const Result r = s.Connect(row.host, ports().imaps);
      const bool accepted = row.flags == 0 || mode == 2;
      EXPECT_EQ(r, accepted ? rc::kOk : SecureTransportError(kTlsEngineCertificateRefused))
          << row.host << " mode " << mode << ": " << s.tls_error_detail();
      if (mode > 0) {
        EXPECT_EQ(decider.flags, row.flags ? std::vector<uint32_t>{row.flags} : std::vector<uint32_t>{})
            << row.host << " mode " << mode;
        EXPECT_NE(decider.subject.find(row.subject), std::string::npos) << row.host << ": " << decider.subject;
      }
      if (accepted) {
        EXPECT_EQ(test::Line(s).rfind("* OK", 0), 0u) << row.host;
      }
    }
  }
}

TEST_F(DovecotTlsTest, ProtocolVersions) {
  struct Row { const char* name; uint32_t versions; bool strong; Result want; const char* protocol; };
  const Row rows[] = {
      {"1.3 only", kTls13, false, rc::kOk, "TLSv1.3"},
      {"1.2 only", kTls12, false, rc::kOk, "TLSv1.2"},
      {"1.2 with strong encryption", kTls12, true, rc::kOk, "TLSv1.2"},
      {"1.3 and 1.1, not 1.2", kTls13 | kTls11, false, rc::kOk, "TLSv1.3"},
      {"1.2 and 1.0, not 1.1", kTls12 | kTls10, false, rc::kOk, "TLSv1.2"},
      {"the default", kTlsDefaultVersions, false, rc::kOk, "TLSv1.3"},
      // The server takes 1.2 and newer, and hangs up without an alert.
      {"1.1 and 1.0", kTls11 | kTls10, false, SecureTransportError(kTlsEngineClosedInHandshake), ""},
  };
  for (const Row& row : rows) {
    CMailSocket s;
    s.SetTimeout(5);
    s.SetTlsVersions(row.versions);
    s.SetStrongEncryption(row.strong);
    s.SetPlainMode(false).Ignore();
    EXPECT_EQ(s.Connect("localhost", ports().imaps), row.want) << row.name << ": " << s.tls_error_detail();
    if (row.want.ok()) {
      EXPECT_EQ(s.TlsProtocol(), row.protocol) << row.name;
      EXPECT_EQ(test::Line(s).rfind("* OK", 0), 0u) << row.name;
    }
  }
}

}  // namespace
}  // namespace trv
