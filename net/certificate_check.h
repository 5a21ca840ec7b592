// The flags of the server certificate check, handed to the certificate
// decision callback. Their bit positions are fixed: a callback (and whatever
// it stored, such as a certificate the user accepted for a host) depends on
// them.
//
// The chain check yields a result r and reason bits s. Flag 1 stands for
// r = 2 (the chain does not end in a trusted root), 0x80 for r = 8 (the chain
// could not be checked at all), and reason bit k sets flag 2 << k. OpenSSL's
// verification errors map onto them as follows:
//   r = 2, flag 0x001: self-signed leaf, self-signed root not in the store,
//     issuer missing or not trusted, leaf signature not verifiable.
//   bit 0, flag 0x002: a certificate of the chain (or a CRL) has expired.
//   bit 1, flag 0x004: a certificate of the chain is not yet valid.
//   bit 2, flag 0x008: revoked.
//   bit 3, flag 0x010: the certificate may not be used for a TLS server
//     (extended or plain key usage).
//   bit 4, flag 0x020: an issuer is not a CA, or a path length or name
//     constraint is broken.
//   bit 5, flag 0x040: a signature is wrong, or a key or digest is too weak.
//   r = 8, flag 0x080: anything else (malformed fields, unsupported
//     extensions, internal errors).
// The host name check adds 0x100 when the certificate does not name the host.
#pragma once

#include <cstdint>
#include <string_view>

namespace trv {

class Network;
class TlsCertificate;

inline constexpr uint32_t kCertUntrustedRoot = 0x001;
inline constexpr uint32_t kCertExpired = 0x002;
inline constexpr uint32_t kCertNotYetValid = 0x004;
inline constexpr uint32_t kCertRevoked = 0x008;
inline constexpr uint32_t kCertWrongUsage = 0x010;
inline constexpr uint32_t kCertBadIssuer = 0x020;
inline constexpr uint32_t kCertBadSignature = 0x040;
inline constexpr uint32_t kCertInvalid = 0x080;
inline constexpr uint32_t kCertNameMismatch = 0x100;

// The flag for one OpenSSL verification error (X509_V_ERR_...); 0 for X509_V_OK.
uint32_t ChainFlagForVerifyError(int x509_error);

// Whether the certificate names the host the connection was made to. A name
// matches the DNS names and the common name, ignoring case. A dotted IPv4
// host matches an IP address entry, or else a DNS name or common name that
// resolves (through the network) to that address.
bool CertificateMatchesHost(const TlsCertificate& cert, std::string_view host, Network& network);

}  // namespace trv
