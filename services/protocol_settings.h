// The settings of one protocol of a service (SMTP, POP3 or IMAP4): server,
// credentials, SOCKS proxy and TLS choices, as the settings file keeps them
// under the protocol's key prefix ("SMTP", "POP3", "IMAP4"). The connection
// part goes onto a CMailSocket before it connects.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace trv {

class CMailSocket;

struct ProtocolSettings {
  std::string host;             // 8-bit text
  int32_t port = 0;             // default per protocol: 25, 110, and 110 for IMAP4 (kept as it is)
  bool store_password = false;  // keep user name and enciphered password in the settings file
  std::string user_name;
  std::string password;         // plain, in memory only; wiped by ~ProtocolSettings
  // Connection-settings record.
  int32_t timeout = 60;         // seconds
  uint32_t socks_version = 0;   // 0 none, 1 SOCKS 4, 2 SOCKS 4A, 3 SOCKS 5
  std::string socks_address;
  int32_t socks_port = 1028;
  std::string socks_user;
  std::string socks_password;
  bool socks_auth = false;
  // TLS and SASL.
  bool use_ssl = false;
  bool use_sasl = false;
  bool ssl_explicit = true;     // STARTTLS / STLS on the plain port; false: TLS from the start
  bool ssl_allow_insecure = false;
  uint32_t ssl_versions = 7;
  bool ssl_strong = false;

  ProtocolSettings() = default;
  explicit ProtocolSettings(int32_t default_port) : port(default_port) {}
  ProtocolSettings(const ProtocolSettings&) = default;
  ProtocolSettings& operator=(const ProtocolSettings&) = default;
  ~ProtocolSettings();
};

// Puts time-out, SOCKS proxy and TLS versions and strength onto the socket.
// Implicit TLS is the caller's: it connects, then SetPlainMode(false).
void ApplyConnectionSettings(const ProtocolSettings& settings, CMailSocket& socket);

// The run log's connection lines, as the sending and receiving runs write
// them: "Socks: No" or "Socks: 5 Address: a Port: p Auth: Yes";
// "SSL: No" or "SSL: Yes, Explicit"/"SSL: Yes, Implicit"; "SASL: Yes"/"SASL: No".
std::string SocksLogLine(const ProtocolSettings& settings);
std::string SslLogLine(const ProtocolSettings& settings);
std::string SaslLogLine(const ProtocolSettings& settings);

}  // namespace trv
