// Certificates made by the openssl command for TLS tests, once per process,
// in a temporary directory: a test CA and, signed by it, a valid server
// certificate for localhost, an expired one and one for another name; plus a
// self-signed one. Every certificate has an EC P-256 key in a file beside it.
#pragma once

#include <filesystem>
#include <string>

namespace trv::test {

struct CertificateFiles {
  std::filesystem::path cert;
  std::filesystem::path key;
};

struct TestCertificates {
  std::filesystem::path dir;
  CertificateFiles ca;           // CN=Tarvo Test CA
  CertificateFiles server;       // CN=localhost, DNS:localhost, IP:127.0.0.1
  CertificateFiles expired;      // CN=localhost, DNS:localhost, IP:127.0.0.2; ended yesterday
  CertificateFiles self_signed;  // CN=localhost, DNS:localhost, IP:127.0.0.3; its own issuer
  CertificateFiles other_name;   // CN=mail.other.test, DNS:mail.other.test
  CertificateFiles cn_only;      // CN=localhost and no alternative names
};

// Makes the files on first use. Returns null with *error set when the
// openssl command is missing or fails.
const TestCertificates* Certificates(std::string* error);

}  // namespace trv::test
