#include "services/certificate_trust.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "base/durable_write.h"
#include "base/wide_string.h"
#include "net/certificate_check.h"

namespace trv {

namespace {

constexpr size_t kSha256Digits = 64;

bool IsSha256Hex(std::string_view s) {
  return s.size() == kSha256Digits &&
         std::all_of(s.begin(), s.end(), [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

// A field may hold neither the separator nor a line break.
std::string OneField(std::string_view s) {
  std::string out(s);
  std::replace_if(out.begin(), out.end(), [](char c) { return c == '\t' || c == '\r' || c == '\n'; }, ' ');
  return out;
}

std::string HostPort(std::string_view host, uint16_t port) {
  const bool v6 = host.find(':') != std::string_view::npos;
  return (v6 ? "[" + std::string(host) + "]" : std::string(host)) + ":" + std::to_string(port);
}

// Reads one entry line; false with *why set when it does not read.
bool ParseEntry(std::string_view line, TrustedCertificate* out, std::string* why) {
  std::vector<std::string_view> f;
  for (size_t start = 0; f.size() < 4;) {
    const size_t tab = line.find('\t', start);
    if (tab == std::string_view::npos) break;
    f.push_back(line.substr(start, tab - start));
    start = tab + 1;
    if (f.size() == 4) f.push_back(line.substr(start));
  }
  if (f.size() != 5) return *why = "not five fields separated by tabs", false;
  unsigned port = 0;
  const auto [end, ec] = std::from_chars(f[1].data(), f[1].data() + f[1].size(), port);
  if (f[0].empty()) return *why = "no host", false;
  if (ec != std::errc() || end != f[1].data() + f[1].size() || port == 0 || port > 65535) {
    return *why = "bad port \"" + std::string(f[1]) + "\"", false;
  }
  if (!IsSha256Hex(f[2]) || !IsSha256Hex(f[3])) return *why = "a fingerprint is not 64 lower-case hex digits", false;
  *out = {ToLowerAscii(f[0]), static_cast<uint16_t>(port), std::string(f[2]), std::string(f[3]), std::string(f[4])};
  return true;
}

// The file's text: a comment line, then one line an entry.
template <typename Map>
std::string FileText(const Map& entries) {
  std::string text = "# Trusted server certificates: host, port, key SHA-256, certificate SHA-256, subject\n";
  for (const auto& [key, e] : entries) {
    text += OneField(e.host) + "\t" + std::to_string(e.port) + "\t" + e.key_sha256 + "\t" + e.cert_sha256 + "\t" +
            OneField(e.subject) + "\n";
  }
  return text;
}

}  // namespace

CertificateFacts CertificateFacts::Of(const TlsCertificate& cert) {
  return {cert.Subject(), cert.Issuer(), cert.NotBefore(), cert.NotAfter(),
          cert.Sha256(),  cert.Sha1(),   cert.PublicKeySha256()};
}

std::string CertificateFlagsText(uint32_t flags) {
  static constexpr std::pair<uint32_t, const char*> kWords[] = {
      {kCertUntrustedRoot, "self-signed or untrusted root"},
      {kCertExpired, "expired"},
      {kCertNotYetValid, "not yet valid"},
      {kCertRevoked, "revoked"},
      {kCertWrongUsage, "not for a TLS server"},
      {kCertBadIssuer, "bad issuer or constraints"},
      {kCertBadSignature, "bad signature or weak key"},
      {kCertInvalid, "could not be checked"},
      {kCertNameMismatch, "name mismatch"},
  };
  std::string text;
  for (const auto& [bit, word] : kWords) {
    if ((flags & bit) == 0) continue;
    if (!text.empty()) text += ", ";
    text += word;
  }
  return text;
}

std::string RefusedCertificate::Message() const {
  const std::string where = HostPort(host, port);
  if (key_changed()) {
    return "The certificate of " + where + " has a NEW PUBLIC KEY (trusted key SHA-256 " + trusted_key_sha256 +
           ", offered key SHA-256 " + cert.key_sha256 +
           "). Someone may be impersonating the server. If its key really changed, run \"trvmail-cli accept-cert " +
           where + "\".";
  }
  return "The certificate of " + where + " is not trusted (" + CertificateFlagsText(flags) + "; subject " +
         cert.subject + ", issuer " + cert.issuer + ", valid from " + cert.not_before + " until " +
         cert.not_after + ", key SHA-256 " + cert.key_sha256 +
         "). To see it and trust it, run \"trvmail-cli accept-cert " + where + "\".";
}

CertificateTrust::CertificateTrust(FileSystem& fs, std::filesystem::path path, LogSink& log)
    : fs_(fs), path_(std::move(path)), log_(log) {}

CertificateTrust::Key CertificateTrust::KeyOf(std::string_view host, uint16_t port) { return {ToLowerAscii(host), port}; }

Result CertificateTrust::Load(std::vector<std::string>* problems) {
  std::map<Key, TrustedCertificate> entries;
  std::string bytes;
  if (fs_.Exists(path_)) {
    if (Result r = fs_.ReadFile(path_, &bytes); r.failed()) {
      MutexLock lock(mu_);
      entries_.clear();
      return r;
    }
  }
  size_t number = 0;
  for (size_t start = 0; start < bytes.size();) {
    size_t end = bytes.find('\n', start);
    if (end == std::string::npos) end = bytes.size();
    std::string_view line(bytes.data() + start, end - start);
    start = end + 1;
    ++number;
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (line.empty() || line.front() == '#') continue;
    TrustedCertificate entry;
    std::string why;
    if (!ParseEntry(line, &entry, &why)) {
      if (problems) problems->push_back("line " + std::to_string(number) + ": " + why);
      continue;
    }
    const Key key{entry.host, entry.port};
    entries[key] = std::move(entry);
  }
  MutexLock lock(mu_);
  entries_ = std::move(entries);
  return rc::kOk;
}

Result CertificateTrust::Trust(std::string_view host, uint16_t port, const CertificateFacts& cert) {
  if (host.empty() || port == 0 || !IsSha256Hex(cert.key_sha256) || !IsSha256Hex(cert.sha256)) {
    return rc::kInvalidArg;
  }
  const Key key = KeyOf(host, port);
  Result r;
  {
    MutexLock lock(mu_);
    std::map<Key, TrustedCertificate> entries = entries_;
    entries[key] = {key.first, port, cert.key_sha256, cert.sha256, OneField(cert.subject)};
    r = WriteFileDurably(fs_, path_, FileText(entries));
    if (r.ok()) {
      entries_ = std::move(entries);
      refused_.erase(key);
    }
  }
  if (r.ok()) log_.Log("Certificate trusted for " + HostPort(key.first, port) + ": key SHA-256 " + cert.key_sha256);
  return r;
}

std::optional<TrustedCertificate> CertificateTrust::Find(std::string_view host, uint16_t port) const {
  MutexLock lock(mu_);
  const auto it = entries_.find(KeyOf(host, port));
  if (it == entries_.end()) return std::nullopt;
  return it->second;
}

std::vector<TrustedCertificate> CertificateTrust::Entries() const {
  MutexLock lock(mu_);
  std::vector<TrustedCertificate> list;
  for (const auto& [key, e] : entries_) list.push_back(e);
  return list;
}

bool CertificateTrust::Decide(std::string_view host, uint16_t port, uint32_t flags, const TlsCertificate& cert) {
  if (flags == 0) return true;
  const Key key = KeyOf(host, port);
  RefusedCertificate refused{key.first, port, flags, CertificateFacts::Of(cert), {}};
  bool accepted = false;
  bool renewed = false;
  {
    MutexLock lock(mu_);
    const auto it = entries_.find(key);
    if (it == entries_.end()) {
      refused_[key] = refused;
    } else if (it->second.key_sha256 != refused.cert.key_sha256) {
      refused.trusted_key_sha256 = it->second.key_sha256;
      refused_[key] = refused;
    } else {
      accepted = true;
      renewed = it->second.cert_sha256 != refused.cert.sha256;
      refused_.erase(key);
    }
  }
  if (!accepted) {
    log_.Log((refused.key_changed() ? "*** " : "") + std::string("Certificate refused: ") + refused.Message());
  } else if (renewed) {
    log_.Log("Certificate of " + HostPort(key.first, port) + " renewed with the trusted key (" +
             CertificateFlagsText(flags) + "); accepted");
  }
  return accepted;
}

std::optional<RefusedCertificate> CertificateTrust::LastRefusal(std::string_view host, uint16_t port) const {
  MutexLock lock(mu_);
  const auto it = refused_.find(KeyOf(host, port));
  if (it == refused_.end()) return std::nullopt;
  return it->second;
}

bool CertificateTrust::AcceptCertificate(CMailSocket& socket, uint32_t flags, const TlsCertificate& certificate) {
  return Decide(socket.connected_host(), socket.connected_port(), flags, certificate);
}

}  // namespace trv
