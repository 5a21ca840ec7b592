// Certificate trust against Dovecot's self-signed (127.0.0.3) and expired
// (127.0.0.2, another key) certificates: refused until `accept-cert`; passed by
// key, not certificate hash; a changed key refused naming both keys.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "services/certificate_trust.h"
#include "tests/app/cli_runner.h"
#include "tests/support/mail_servers.h"
#include "tests/support/process.h"

namespace trv {
namespace {

using test::MailServers;

std::string Where(const char* host, uint16_t port) { return std::string(host) + ":" + std::to_string(port); }

// A TLS connection decided by the store as its file now stands.
Result Connect(const char* host, uint16_t port, CertificateTrust& trust) {
  EXPECT_EQ(trust.Load(nullptr), rc::kOk);
  CMailSocket s;
  s.SetTimeout(5);
  s.SetCertificateDecider(&trust);
  s.SetPlainMode(false).Ignore();  // before connecting it cannot fail
  return s.Connect(host, port);
}

class AcceptCertTest : public test::CliTestBase {};

TEST_F(AcceptCertTest, TrustByPublicKey) {
  TRV_REQUIRE_SERVER(MailServers::Instance().Postfix());  // and Dovecot
  const test::ServerPorts& ports = MailServers::Instance().ports();
  std::string error;
  const test::TestCertificates* certs = test::Certificates(&error);
  ASSERT_NE(certs, nullptr) << error;
  const auto self_signed = TlsCertificate::FromPemFile(certs->self_signed.cert);
  const auto expired = TlsCertificate::FromPemFile(certs->expired.cert);
  const auto server = TlsCertificate::FromPemFile(certs->server.cert);
  const Result refused = SecureTransportError(kTlsEngineCertificateRefused);
  const std::string dir = (root() / "data").string();
  const auto file = root() / "data" / CertificateTrust::kFileName;
  NullLogSink log;
  CertificateTrust trust(PosixFileSystem::Instance(), file, log);

  EXPECT_EQ(Connect("127.0.0.3", ports.imaps, trust), refused);
  const auto why = trust.LastRefusal("127.0.0.3", ports.imaps);
  ASSERT_TRUE(why.has_value());
  EXPECT_EQ(why->flags, kCertUntrustedRoot);
  EXPECT_NE(why->Message().find("trvmail-cli accept-cert " + Where("127.0.0.3", ports.imaps)), std::string::npos);

  // Implicit TLS or each upgrade; without a terminal or --yes: exit 2. (The
  // program does not trust the test CA, so the server's certificate is flagged.)
  const std::tuple<const char*, uint16_t, const char*, const TlsCertificate*> rows[] = {
      {"127.0.0.3", ports.pop3s, nullptr, self_signed.get()},  // host, port, --starttls, served
      {"127.0.0.3", ports.imap, "imap", self_signed.get()},
      {"127.0.0.3", ports.pop3, "pop3", self_signed.get()},
      {"localhost", ports.smtp, "smtp", server.get()},
  };
  for (const auto& [host, port, starttls, cert] : rows) {
    std::vector<std::string> args{"--data-dir", dir, "accept-cert", Where(host, port)};
    if (starttls) args.insert(args.end(), {"--starttls", starttls});
    const test::CliRun run = Run(args);
    EXPECT_EQ(run.status, 2) << args[3] << ": " << run.err;
    EXPECT_NE(run.err.find("--yes"), std::string::npos) << run.err;
    EXPECT_NE(run.out.find(cert->PublicKeySha256()), std::string::npos) << run.out;
    EXPECT_FALSE(std::filesystem::exists(file));
  }
  test::CliRun run = Ok({"--data-dir", dir, "accept-cert", Where("127.0.0.3", ports.imaps), "--yes"});
  for (const std::string& part : {self_signed->Sha256(), self_signed->Sha1(), std::string("self-signed")}) {
    EXPECT_NE(run.out.find(part), std::string::npos) << part << " in\n" << run.out;
  }
  struct stat st {};
  ASSERT_EQ(::stat(file.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(Connect("127.0.0.3", ports.imaps, trust), rc::kOk);
  EXPECT_EQ(Connect("127.0.0.3", ports.pop3s, trust), refused) << "trust is per port";

  // Another certificate of the same key, trusted for POP3S, lets the served one pass.
  const auto renewed_path = root() / "renewed.pem";
  ASSERT_EQ(test::RunProcess({"/usr/bin/openssl", "req", "-x509", "-new", "-key", certs->self_signed.key.string(),
                              "-subj", "/CN=renewed", "-days", "30", "-out", renewed_path.string()},
                             root() / "openssl.log"),
            0);
  const auto renewed = TlsCertificate::FromPemFile(renewed_path);
  ASSERT_NE(renewed->Sha256(), self_signed->Sha256());
  ASSERT_EQ(trust.Trust("127.0.0.3", ports.pop3s, CertificateFacts::Of(*renewed)), rc::kOk);
  EXPECT_EQ(Connect("127.0.0.3", ports.pop3s, trust), rc::kOk);

  ASSERT_EQ(trust.Trust("127.0.0.2", ports.imaps, CertificateFacts::Of(*self_signed)), rc::kOk);
  EXPECT_EQ(Connect("127.0.0.2", ports.imaps, trust), refused);
  const auto changed = trust.LastRefusal("127.0.0.2", ports.imaps);
  ASSERT_TRUE(changed.has_value() && changed->key_changed());
  for (const std::string& part :
       {Where("127.0.0.2", ports.imaps), self_signed->PublicKeySha256(), expired->PublicKeySha256()}) {
    EXPECT_NE(changed->Message().find(part), std::string::npos) << part << " in " << changed->Message();
  }
  run = Ok({"--data-dir", dir, "accept-cert", Where("127.0.0.2", ports.imaps), "--yes"});
  EXPECT_NE(run.out.find("REPLACES the trusted public key " + self_signed->PublicKeySha256()), std::string::npos);
  EXPECT_EQ(Connect("127.0.0.2", ports.imaps, trust), rc::kOk);
}

}  // namespace
}  // namespace trv
