// TLS against the real Dovecot and Postfix: implicit TLS and the
// STARTTLS/STLS upgrade, also through SOCKS 5 proxies; the certificate flags of expired,
// self-signed and misnamed certificates; the protocol versions.
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

TEST_F(DovecotTlsTest, ImplicitTlsFromTheFirstByte) {
  const MailUser& u = MailServers::MicrosocksUser();
  struct Row {
    const char* name;
    test::ServerStatus status;
    uint16_t port;
    uint16_t socks5;  // 0: direct
    const char* greeting;
    const char* quit;
    const char* end;
  };
  const Row rows[] = {
      {"IMAPS", {}, ports().imaps, 0, "* OK", "a LOGOUT", "a OK"},
      {"POP3S", {}, ports().pop3s, 0, "+OK", "QUIT", "+OK"},
      {"SMTPS", servers().Postfix(), ports().smtps, 0, "220 ", "QUIT", "221"},
      {"IMAPS through SOCKS 5 with user and password", servers().Microsocks(), ports().imaps,
       ports().microsocks_auth, "* OK", "a LOGOUT", "a OK"},
  };
  for (const Row& row : rows) {
    TRV_REQUIRE_SERVER(row.status);
    Decider decider;
    CMailSocket s;
    s.SetTimeout(5);
    s.SetCertificateDecider(&decider);
    if (row.socks5) {
      s.SetSocks(kSocks5, "127.0.0.1", row.socks5);
      s.SetSocksCredentials(true, u.name, u.password);
    }
    ASSERT_EQ(s.SetPlainMode(false), rc::kOk);
    ASSERT_EQ(s.Connect("localhost", row.port), rc::kOk) << row.name << ": " << s.tls_error_detail();
    EXPECT_TRUE(decider.flags.empty()) << row.name;
    std::vector<std::string> lines;
    ASSERT_EQ(ReadUntil(s, row.greeting, &lines), rc::kOk) << row.name;
    ASSERT_EQ(s.SendLine(row.quit), rc::kOk) << row.name;
    EXPECT_EQ(ReadUntil(s, row.end, &lines), rc::kOk) << row.name;
  }
}

TEST_F(DovecotTlsTest, ImapStartTls) {
  CMailSocket s;
  s.SetTimeout(5);
  ASSERT_EQ(s.Connect("localhost", ports().imap), rc::kOk);
  std::string line;
  ASSERT_EQ(s.ReadLine(&line), rc::kOk);
  EXPECT_NE(line.find("STARTTLS"), std::string::npos) << line;
  ASSERT_EQ(s.SendLine("a STARTTLS"), rc::kOk);
  std::vector<std::string> lines;
  ASSERT_EQ(ReadUntil(s, "a ", &lines), rc::kOk);
  ASSERT_EQ(lines.back().rfind("a OK", 0), 0u) << lines.back();
  ASSERT_EQ(s.SetPlainMode(false), rc::kOk) << s.tls_error_detail();
  ASSERT_EQ(s.SendLine("b CAPABILITY"), rc::kOk);
  ASSERT_EQ(ReadUntil(s, "b ", &lines), rc::kOk);
  EXPECT_EQ(lines.back().rfind("b OK", 0), 0u);
  EXPECT_EQ(lines.front().find("STARTTLS"), std::string::npos) << "offered again inside TLS: " << lines.front();
}

TEST_F(DovecotTlsTest, Pop3StlsThroughSocks5) {
  struct Row {
    const char* name;
    test::ServerStatus status;
    uint16_t proxy;
  };
  const Row rows[] = {{"no proxy", {}, 0},
                      {"microsocks", servers().Microsocks(), ports().microsocks},
                      {"Dante", servers().Dante(), ports().dante}};
  for (const Row& row : rows) {
    TRV_REQUIRE_SERVER(row.status);
    CMailSocket s;
    s.SetTimeout(5);
    if (row.proxy) s.SetSocks(kSocks5, "127.0.0.1", row.proxy);
    ASSERT_EQ(s.Connect("localhost", ports().pop3), rc::kOk) << row.name;
    std::string line;
    ASSERT_EQ(s.ReadLine(&line), rc::kOk) << row.name;
    ASSERT_EQ(s.SendLine("STLS"), rc::kOk);
    ASSERT_EQ(s.ReadLine(&line), rc::kOk);
    ASSERT_EQ(line.rfind("+OK", 0), 0u) << row.name << ": " << line;
    // The certificate names localhost, not the proxy's address.
    ASSERT_EQ(s.SetPlainMode(false), rc::kOk) << row.name << ": " << s.tls_error_detail();
    ASSERT_EQ(s.SendLine("CAPA"), rc::kOk);
    std::vector<std::string> lines;
    ASSERT_EQ(ReadUntil(s, ".", &lines), rc::kOk) << row.name;
    EXPECT_EQ(lines.front(), "+OK") << row.name;
  }
}

TEST_F(DovecotTlsTest, CertificateFlags) {
  // Dovecot serves a certificate by the local address it was reached at.
  struct Row {
    const char* host;
    uint32_t flags;
  };
  const Row rows[] = {
      {"localhost", 0},
      {"LOCALHOST", 0},  // differs only in case
      {"127.0.0.1", 0},
      {"127.0.0.2", kCertExpired},
      {"127.0.0.3", kCertUntrustedRoot},
      {"127.0.0.4", kCertNameMismatch},
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
      }
      std::string line;
      if (accepted) {
        EXPECT_EQ(s.ReadLine(&line), rc::kOk) << row.host;
      }
    }
  }
}

TEST_F(DovecotTlsTest, ProtocolVersions) {
  struct Row {
    const char* name;
    uint32_t versions;
    bool strong;
    Result want;
    const char* protocol;
  };
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
      std::string line;
      EXPECT_EQ(s.ReadLine(&line), rc::kOk) << row.name;
    }
  }
}

}  // namespace
}  // namespace trv
