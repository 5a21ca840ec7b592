#include "services/protocol_settings.h"

#include <algorithm>

#include "net/mail_socket.h"
#include "net/secret.h"

namespace trv {

ProtocolSettings::~ProtocolSettings() {
  WipeSecret(&password);
  WipeSecret(&socks_password);
}

void ApplyConnectionSettings(const ProtocolSettings& s, CMailSocket& socket) {
  socket.SetTimeout(static_cast<uint16_t>(std::clamp(s.timeout, 1, 65535)));
  socket.SetSocks(s.socks_version, s.socks_address, static_cast<uint16_t>(std::clamp(s.socks_port, 0, 65535)));
  socket.SetSocksCredentials(s.socks_auth, s.socks_user, s.socks_password);
  socket.SetTlsVersions(s.ssl_versions);
  socket.SetStrongEncryption(s.ssl_strong);
}

std::string SocksLogLine(const ProtocolSettings& s) {
  if (s.socks_version == kSocksNone || s.socks_version > kSocks5) return "Socks: No";
  const char* version = s.socks_version == kSocks4 ? "4" : s.socks_version == kSocks4A ? "4A" : "5";
  return std::string("Socks: ") + version + " Address: " + s.socks_address + " Port: " +
         std::to_string(s.socks_port) + " Auth: " + (s.socks_auth ? "Yes" : "No");
}

std::string SslLogLine(const ProtocolSettings& s) {
  if (!s.use_ssl) return "SSL: No";
  return std::string("SSL: Yes, ") + (s.ssl_explicit ? "Explicit" : "Implicit");
}

std::string SaslLogLine(const ProtocolSettings& s) { return std::string("SASL: ") + (s.use_sasl ? "Yes" : "No"); }

}  // namespace trv
