// The certificate check: OpenSSL's verification errors onto the flags whose
// bit positions a decision callback depends on, and the host name check on
// real certificate files.
#include "net/certificate_check.h"

#include <gtest/gtest.h>
#include <openssl/x509_vfy.h>

#include "net/tls_engine.h"
#include "net/transport.h"
#include "tests/support/certificates.h"

namespace trv {
namespace {

TEST(CertificateFlagsTest, OneVerifyErrorPerFixedBit) {
  const std::pair<int, uint32_t> rows[] = {
      {X509_V_OK, 0},
      {X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT, 0x001},
      {X509_V_ERR_CERT_HAS_EXPIRED, 0x002},
      {X509_V_ERR_CERT_NOT_YET_VALID, 0x004},
      {X509_V_ERR_CERT_REVOKED, 0x008},
      {X509_V_ERR_INVALID_PURPOSE, 0x010},
      {X509_V_ERR_INVALID_CA, 0x020},
      {X509_V_ERR_EE_KEY_TOO_SMALL, 0x040},
      {X509_V_ERR_ERROR_IN_CERT_NOT_AFTER_FIELD, 0x080},
  };
  for (const auto& [error, flag] : rows) {
    EXPECT_EQ(ChainFlagForVerifyError(error), flag) << X509_verify_cert_error_string(error);
  }
}

TEST(CertificateNameTest, HostAgainstCertificate) {
  std::string error;
  const test::TestCertificates* certs = test::Certificates(&error);
  ASSERT_NE(certs, nullptr) << error;
  struct Row {
    const char* name;
    const std::filesystem::path* file;
    const char* host;
    bool match;
  };
  const Row rows[] = {
      {"DNS name", &certs->server.cert, "localhost", true},
      {"case differs", &certs->server.cert, "LocalHost", true},
      {"IP entry", &certs->server.cert, "127.0.0.1", true},
      {"literal in short form", &certs->server.cert, "127.1", true},
      {"other address", &certs->server.cert, "127.0.0.9", false},
      {"other name", &certs->server.cert, "mail.example.org", false},
      {"common name only", &certs->cn_only.cert, "LOCALHOST", true},
      {"literal matches by resolving the common name", &certs->cn_only.cert, "127.0.0.1", true},
      {"literal that the common name does not resolve to", &certs->cn_only.cert, "127.0.0.2", false},
      {"certificate for another name", &certs->other_name.cert, "localhost", false},
  };
  for (const Row& row : rows) {
    const auto cert = TlsCertificate::FromPemFile(row.file->string());
    ASSERT_NE(cert, nullptr) << row.name;
    EXPECT_EQ(CertificateMatchesHost(*cert, row.host, Network::System()), row.match) << row.name;
  }
  // What the question to the user shows.
  const auto other = TlsCertificate::FromPemFile(certs->other_name.cert.string());
  ASSERT_NE(other, nullptr);
  EXPECT_EQ(other->CommonName(), "mail.other.test");
  EXPECT_EQ(other->DnsNames(), std::vector<std::string>{"mail.other.test"});
  EXPECT_NE(other->Issuer().find("Tarvo Test CA"), std::string::npos);
  EXPECT_EQ(other->Sha256().size(), 64u);
  EXPECT_EQ(TlsCertificate::FromPemFile("/nonexistent.pem"), nullptr);
}

}  // namespace
}  // namespace trv
