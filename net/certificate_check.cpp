#include "net/certificate_check.h"

#include <openssl/x509_vfy.h>

#include <string>

#include "net/tls_engine.h"
#include "net/transport.h"

namespace trv {

uint32_t ChainFlagForVerifyError(int e) {
  switch (e) {
    case X509_V_OK: return 0;
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
    case X509_V_ERR_CERT_UNTRUSTED:
    case X509_V_ERR_CERT_REJECTED:
      return kCertUntrustedRoot;
    case X509_V_ERR_CERT_HAS_EXPIRED:
    case X509_V_ERR_CRL_HAS_EXPIRED:
      return kCertExpired;
    case X509_V_ERR_CERT_NOT_YET_VALID:
    case X509_V_ERR_CRL_NOT_YET_VALID:
      return kCertNotYetValid;
    case X509_V_ERR_CERT_REVOKED:
      return kCertRevoked;
    case X509_V_ERR_INVALID_PURPOSE:
    case X509_V_ERR_KEYUSAGE_NO_CERTSIGN:
    case X509_V_ERR_KEYUSAGE_NO_DIGITAL_SIGNATURE:
      return kCertWrongUsage;
    case X509_V_ERR_INVALID_CA:
    case X509_V_ERR_PATH_LENGTH_EXCEEDED:
    case X509_V_ERR_PROXY_PATH_LENGTH_EXCEEDED:
    case X509_V_ERR_PERMITTED_VIOLATION:
    case X509_V_ERR_EXCLUDED_VIOLATION:
    case X509_V_ERR_SUBJECT_ISSUER_MISMATCH:
    case X509_V_ERR_AKID_SKID_MISMATCH:
    case X509_V_ERR_AKID_ISSUER_SERIAL_MISMATCH:
      return kCertBadIssuer;
    case X509_V_ERR_CERT_SIGNATURE_FAILURE:
    case X509_V_ERR_UNABLE_TO_DECRYPT_CERT_SIGNATURE:
    case X509_V_ERR_UNABLE_TO_DECODE_ISSUER_PUBLIC_KEY:
    case X509_V_ERR_EE_KEY_TOO_SMALL:
    case X509_V_ERR_CA_KEY_TOO_SMALL:
    case X509_V_ERR_CA_MD_TOO_WEAK:
      return kCertBadSignature;
    default:
      return kCertInvalid;
  }
}

bool CertificateMatchesHost(const TlsCertificate& cert, std::string_view host, Network& network) {
  if (cert.MatchesName(host)) return true;
  IpAddress literal;
  if (!ParseIpv4Literal(host, &literal)) return false;
  if (cert.MatchesAddress(literal.ToString())) return true;
  // An address literal also matches a name in the certificate that resolves
  // to it (a server reached by its address with a certificate for its name).
  std::vector<std::string> names = cert.DnsNames();
  names.push_back(cert.CommonName());
  for (const std::string& name : names) {
    if (name.empty() || name.find('*') != std::string::npos) continue;
    IpAddress resolved;
    if (network.Resolve(name, ResolveMode::kIpv4, &resolved).ok() && resolved == literal) return true;
  }
  return false;
}

}  // namespace trv
