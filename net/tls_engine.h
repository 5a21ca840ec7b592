// The secure transport: a TLS client over OpenSSL 3 memory BIOs. The engine
// never touches a socket; it moves its records through a Channel that the
// connection supplies (CMailSocket sends and receives them through its waited
// raw operations, so time-outs and state notifications hold during TLS too).
//
// Threads: one engine per connection, used by that connection's thread. The
// OpenSSL context with the trust store is shared by all engines and created
// once under a process-wide lock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"

typedef struct ssl_st SSL;
typedef struct bio_st BIO;
typedef struct x509_st X509;
typedef struct x509_store_ctx_st X509_STORE_CTX;

namespace trv {

// TLS version bits: the versions the client offers. OpenSSL offers one
// unbroken range; with a gap in the bits, the range of the newest enabled
// version is offered (1.3 and 1.1 without 1.2 offers 1.3 only).
inline constexpr uint32_t kTls13 = 1;
inline constexpr uint32_t kTls12 = 2;
inline constexpr uint32_t kTls11 = 4;
inline constexpr uint32_t kTls10 = 8;
inline constexpr uint32_t kTlsDefaultVersions = kTls13 | kTls12 | kTls11;

// Engine codes: the low half of a 0x80C5 result (SecureTransportError()).
enum TlsEngineCode : uint32_t {
  kTlsEngineSetup = 1,              // no version in the bit set, no cipher left, out of memory
  kTlsEngineNotTls = 2,             // the peer's bytes are not TLS records
  kTlsEngineNoVersion = 3,          // no protocol version in common
  kTlsEngineNoCipher = 4,           // no cipher suite in common, or the peer's handshake failure alert
  kTlsEngineCertificateRefused = 5, // the certificate was flagged and not accepted
  kTlsEngineAlert = 6,              // the peer ended with another fatal alert
  kTlsEngineTruncated = 7,          // the connection ended inside a record
  kTlsEngineProtocol = 8,           // any other protocol failure (bad record MAC, unexpected message)
  kTlsEngineClosedInHandshake = 9,  // the server hung up during the handshake (no version in common,
                                    // its certificate missing, ...)
};

// A server certificate as the certificate check sees it.
class TlsCertificate {
 public:
  explicit TlsCertificate(X509* x509);  // takes a reference of its own
  ~TlsCertificate();
  TlsCertificate(const TlsCertificate&) = delete;
  TlsCertificate& operator=(const TlsCertificate&) = delete;

  // The first certificate of a PEM file, or null.
  static std::unique_ptr<TlsCertificate> FromPemFile(const std::string& path);

  // The host name against the DNS subject alternative names and the common
  // name, ignoring case, with "*." wildcards in the leftmost label.
  bool MatchesName(std::string_view host) const;
  // A literal address against the IP subject alternative names.
  bool MatchesAddress(std::string_view literal) const;

  std::string CommonName() const;
  std::vector<std::string> DnsNames() const;
  std::string Subject() const;     // one-line form, for the question to the user
  std::string Issuer() const;
  std::string NotBefore() const;   // "Jan  2 03:04:05 2020 GMT"
  std::string NotAfter() const;    // "Jan  2 03:04:05 2030 GMT"
  std::string Sha256() const;      // of the whole certificate (DER): 64 lower-case hex digits
  std::string Sha1() const;        // of the whole certificate: 40 lower-case hex digits
  // Of the public key as the certificate carries it (SubjectPublicKeyInfo,
  // DER): stays the same when a certificate is renewed with the same key.
  std::string PublicKeySha256() const;
  std::string Der() const;

 private:
  X509* x509_;
};

class TlsEngine {
 public:
  // What the engine needs from the connection under it.
  class Channel {
   public:
    virtual ~Channel() = default;
    // Sends every byte or fails.
    virtual Result SendRaw(const char* data, size_t size) = 0;
    // Waits for and reads at least one byte, or fails (time-out, closed).
    virtual Result ReceiveRaw(char* buffer, size_t size, size_t* received) = 0;
    // Called once per handshake with the server's certificate and the flags
    // of the chain check (kCert... bits of net/certificate_check.h). Returns
    // true to accept the certificate.
    virtual bool CheckCertificate(uint32_t chain_flags, const TlsCertificate& cert) = 0;
  };

  struct Options {
    uint32_t versions = kTlsDefaultVersions;
    bool strong = false;     // only suites with keys of 128 bits or more
    std::string host;        // sent as the server name unless it is an address literal
  };

  TlsEngine();
  ~TlsEngine();
  TlsEngine(const TlsEngine&) = delete;
  TlsEngine& operator=(const TlsEngine&) = delete;

  // Forgets any session; the next Handshake starts afresh. The last error
  // and its text stay until then, for the log.
  void Reset();

  // Runs a client handshake to its end. A failure of the channel is returned
  // as it is (a time-out stays 0x80C00014), except that the server closing
  // the connection is kTlsEngineClosedInHandshake; a TLS failure is
  // SecureTransportError(last_error()).
  Result Handshake(Channel& channel, const Options& options);
  // Encrypts and sends every byte.
  Result Write(Channel& channel, const char* data, size_t size);
  // Appends at least one decrypted byte to *out. rc::kSockClosed when the
  // peer closed the TLS session.
  Result Read(Channel& channel, std::string* out);
  // Sends the closing alert, best effort. Reading goes on until the peer's
  // own closing alert.
  void SendClose(Channel& channel);

  bool connected() const { return connected_; }
  uint32_t last_error() const { return last_error_; }
  // OpenSSL's text of the last failure, for the activity log.
  const std::string& error_detail() const { return error_detail_; }
  // Negotiated protocol and cipher, for the activity log ("" before a handshake).
  std::string Protocol() const;
  std::string Cipher() const;
  // The server's certificate once a handshake got that far; null before.
  std::unique_ptr<TlsCertificate> PeerCertificate() const;

  // Adds the certificates of a PEM file to the process-wide trust store that
  // holds the system's roots (tests; certificates the user chose to trust).
  static Result AddTrustedCertificates(const std::string& pem_file);

 private:
  static int VerifyCallback(X509_STORE_CTX* store_ctx, void* arg);
  static int CollectCallback(int ok, X509_STORE_CTX* store_ctx);
  Result Setup(const Options& options);
  Result Flush(Channel& channel);
  Result Pull(Channel& channel);
  Result Fail(int ssl_error);

  SSL* ssl_ = nullptr;
  BIO* in_ = nullptr;   // records from the peer, owned by ssl_
  BIO* out_ = nullptr;  // records for the peer, owned by ssl_
  Channel* channel_ = nullptr;  // during Handshake, for the certificate check
  bool connected_ = false;
  bool refused_ = false;
  uint32_t chain_flags_ = 0;
  uint32_t last_error_ = 0;
  std::string error_detail_;
};

}  // namespace trv
