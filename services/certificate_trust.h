// The server certificates the user chose to trust, kept by public key, and
// the decision on a flagged certificate that uses them.
//
// A certificate without flags (net/certificate_check.h) passes. A flagged
// one passes only when its host and port have an entry with the same public
// key (the SHA-256 of its SubjectPublicKeyInfo): a certificate renewed with
// the same key passes without a question, even though its own hash changed.
// Anything else is refused and remembered (LastRefusal) so that the run's
// error message can say what was refused and how to trust it. A key that
// differs from the trusted one is refused loudly: the log line and the text
// name the host and both key fingerprints.
//
// The file (kFileName in the data directory, 0600, replaced whole through
// base/durable_write.h) holds one entry a line, five fields separated by a
// tab:
//   host <TAB> port <TAB> key SHA-256 <TAB> certificate SHA-256 <TAB> subject
// The host is in lower case, the port decimal (1 to 65535), both SHA-256
// values 64 lower-case hex digits; the subject is for display only (tabs and
// line breaks in it become blanks). Empty lines and lines starting with "#"
// are skipped. A line that does not read is skipped and reported by Load;
// the next save writes only the entries that read.
//
// Threads: every member may be called from any thread (sync runs decide on
// their worker threads). The log sink is called with no lock held.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/file_system.h"
#include "base/log_sink.h"
#include "base/result.h"
#include "base/thread_annotations.h"
#include "net/mail_socket.h"

namespace trv {

// What the user is shown of a certificate, taken from it while it exists.
struct CertificateFacts {
  std::string subject, issuer;
  std::string not_before, not_after;  // "Jan  2 03:04:05 2030 GMT"
  std::string sha256, sha1;           // of the certificate
  std::string key_sha256;             // of its public key: the trust key

  static CertificateFacts Of(const TlsCertificate& cert);
};

// The check's flags in words, in bit order: "expired, name mismatch".
std::string CertificateFlagsText(uint32_t flags);

struct TrustedCertificate {
  std::string host;  // lower case
  uint16_t port = 0;
  std::string key_sha256;
  std::string cert_sha256;
  std::string subject;
};

struct RefusedCertificate {
  std::string host;
  uint16_t port = 0;
  uint32_t flags = 0;
  CertificateFacts cert;
  std::string trusted_key_sha256;  // set when an entry with another key exists

  bool key_changed() const { return !trusted_key_sha256.empty(); }
  // One paragraph for the user: what was refused and why, both key
  // fingerprints when the key changed, and the accept-cert command to run.
  std::string Message() const;
};

class CertificateTrust final : public CertificateDecider {
 public:
  static constexpr const char* kFileName = "TrustedCertificates.txt";

  // `fs` and `log` must outlive the store. Empty until Load.
  CertificateTrust(FileSystem& fs, std::filesystem::path path, LogSink& log);

  // Reads the file, replacing the entries. A missing file is an empty store.
  // Lines that do not read are skipped, each reported in `*problems` (may be
  // null) as "line N: why". Returns the read error of the file, the entries
  // then left empty.
  Result Load(std::vector<std::string>* problems) EXCLUDES(mu_);

  // Adds or replaces the entry of host:port with the certificate's key and
  // writes the file. On a write failure the entries stay as they were.
  Result Trust(std::string_view host, uint16_t port, const CertificateFacts& cert) EXCLUDES(mu_);

  std::optional<TrustedCertificate> Find(std::string_view host, uint16_t port) const EXCLUDES(mu_);
  std::vector<TrustedCertificate> Entries() const EXCLUDES(mu_);

  // The decision described at the top, for a certificate the check flagged
  // (flags 0 passes at once). A passing decision forgets an earlier refusal
  // of host:port.
  bool Decide(std::string_view host, uint16_t port, uint32_t flags, const TlsCertificate& cert) EXCLUDES(mu_);
  // The last refusal of host:port since it last passed.
  std::optional<RefusedCertificate> LastRefusal(std::string_view host, uint16_t port) const EXCLUDES(mu_);

  // CertificateDecider: Decide with the socket's connected host and port.
  bool AcceptCertificate(CMailSocket& socket, uint32_t flags, const TlsCertificate& certificate) override;

 private:
  using Key = std::pair<std::string, uint16_t>;
  static Key KeyOf(std::string_view host, uint16_t port);

  FileSystem& fs_;
  const std::filesystem::path path_;
  LogSink& log_;
  mutable Mutex mu_;
  std::map<Key, TrustedCertificate> entries_ GUARDED_BY(mu_);
  std::map<Key, RefusedCertificate> refused_ GUARDED_BY(mu_);
};

}  // namespace trv
