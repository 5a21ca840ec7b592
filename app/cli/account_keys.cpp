#include "app/cli/account_keys.h"

#include <charconv>
#include <cstdint>
#include <limits>
#include <type_traits>

namespace trv::cli {

namespace {

template <typename T>
constexpr KeyType TypeOf() {
  if constexpr (std::is_same_v<T, bool>) return KeyType::kBool;
  else if constexpr (std::is_same_v<T, int32_t>) return KeyType::kNumber;
  else if constexpr (std::is_same_v<T, uint32_t>) return KeyType::kUnsigned;
  else if constexpr (std::is_same_v<T, std::string>) return KeyType::kText;
  else if constexpr (std::is_same_v<T, WString>) return KeyType::kWideText;
  else if constexpr (std::is_same_v<T, SmtpAuthMode>) return KeyType::kAuthMode;
  else return KeyType::kGuid;
}

template <typename T>
AccountKey Common(const char* name, T ServiceSettings::*member, bool read_only = false) {
  return {name, TypeOf<T>(), [member](ServiceSettings& s) -> void* { return &(s.*member); }, read_only};
}

template <typename T>
AccountKey Protocol(const std::string& name, bool smtp, T ProtocolSettings::*member) {
  return {name, TypeOf<T>(),
          [smtp, member](ServiceSettings& s) -> void* { return &((smtp ? s.smtp : s.incoming).*member); }};
}

// One protocol block ("SMTP", "POP3", "IMAP4"), passwords left out.
void AddProtocolKeys(std::vector<AccountKey>& keys, const std::string& p, bool smtp) {
  using P = ProtocolSettings;
  if (smtp) keys.push_back(Common("SMTPAuthentication", &ServiceSettings::smtp_authentication));
  if (!smtp) keys.push_back(Protocol(p + "Host", smtp, &P::host));
  if (!smtp) keys.push_back(Protocol(p + "Port", smtp, &P::port));
  keys.push_back(Protocol("Store" + p + "Password", smtp, &P::store_password));
  keys.push_back(Protocol(p + "UserName", smtp, &P::user_name));
  if (p == "IMAP4") keys.push_back(Common("IMAP4RootPath", &ServiceSettings::imap4_root_path));
  keys.push_back(Protocol(p + "Timeout", smtp, &P::timeout));
  keys.push_back(Protocol(p + "SocksAddress", smtp, &P::socks_address));
  keys.push_back(Protocol(p + "SocksAuth", smtp, &P::socks_auth));
  keys.push_back(Protocol(p + "SocksPort", smtp, &P::socks_port));
  keys.push_back(Protocol(p + "SocksUserID", smtp, &P::socks_user));
  keys.push_back(Protocol(p + "SocksVersion", smtp, &P::socks_version));
  keys.push_back(Protocol(p + "UseSSL", smtp, &P::use_ssl));
  keys.push_back(Protocol(p + "UseSASL", smtp, &P::use_sasl));
  keys.push_back(Protocol(p + "SSLExplicit", smtp, &P::ssl_explicit));
  keys.push_back(Protocol(p + "SSLAllowInsecure", smtp, &P::ssl_allow_insecure));
  keys.push_back(Protocol(p + "SSLVersions", smtp, &P::ssl_versions));
  keys.push_back(Protocol(p + "SSLStrongEncryption", smtp, &P::ssl_strong));
}

std::vector<AccountKey> MakeKeys(std::string_view service_class) {
  using S = ServiceSettings;
  std::vector<AccountKey> keys = {
      Common("Synchronize", &S::synchronize),
      Common("SyncAtStartup", &S::sync_at_startup),
      Common("SyncMinutes", &S::sync_minutes),
      Common("Signature", &S::signature),
      Common("AddSignature", &S::add_signature),
      Common("DontAddSignatureToReplies", &S::dont_add_signature_to_replies),
      Common("GUID", &S::guid, true),
      Common("Storage", &S::storage_guid, true),
      Common("ServiceName", &S::service_name),
      Common("UserRealName", &S::user_real_name),
      Common("Organization", &S::organization),
      Common("EmailAddress", &S::email_address),
      Common("ReplyAddress", &S::reply_address),
      Common("LoadMaxSize", &S::load_max_size),
      Common("LoadLastDays", &S::load_last_days),
      Common("LoadBodySize", &S::load_body_size),
      Common("DeleteOnServer", &S::delete_on_server),
      Common("DeleteAfterDays", &S::delete_after_days),
      Common("DeleteAfterLocalDeletion", &S::delete_after_local_deletion),
      Common("ReadingCharset", &S::reading_charset),
      Common("SendingCharset", &S::sending_charset),
      Common("8BitInHeaders", &S::eight_bit_in_headers),
      Common("BodyEncoding", &S::body_encoding),
      Common("Connection", &S::connection),
  };
  // The SMTP block starts with host and port, then the authentication mode.
  keys.push_back(Protocol("SMTPHost", true, &ProtocolSettings::host));
  keys.push_back(Protocol("SMTPPort", true, &ProtocolSettings::port));
  AddProtocolKeys(keys, "SMTP", true);
  if (service_class == "POP3" || service_class == "IMAP4") AddProtocolKeys(keys, std::string(service_class), false);
  return keys;
}

bool EndsWith(std::string_view s, std::string_view tail) {
  return s.size() >= tail.size() && s.substr(s.size() - tail.size()) == tail;
}

bool ReadBool(std::string_view v, bool* out) {
  for (const char* t : {"1", "true", "yes", "on"}) {
    if (EqualsNoCase(v, t)) return *out = true;
  }
  for (const char* f : {"0", "false", "no", "off"}) {
    if (EqualsNoCase(v, f)) return !(*out = false);
  }
  return false;
}

bool ReadNumber(std::string_view v, int64_t low, int64_t high, int64_t* out) {
  int64_t n = 0;
  const auto [end, ec] = std::from_chars(v.data(), v.data() + v.size(), n);
  if (ec != std::errc() || end != v.data() + v.size() || n < low || n > high) return false;
  *out = n;
  return true;
}

}  // namespace

const std::vector<AccountKey>& AccountKeys(std::string_view service_class) {
  static const std::vector<AccountKey> pop3 = MakeKeys("POP3");
  static const std::vector<AccountKey> imap4 = MakeKeys("IMAP4");
  static const std::vector<AccountKey> other = MakeKeys("");
  return service_class == "POP3" ? pop3 : service_class == "IMAP4" ? imap4 : other;
}

const AccountKey* FindAccountKey(std::string_view service_class, std::string_view name) {
  for (const AccountKey& key : AccountKeys(service_class)) {
    if (EqualsNoCase(key.name, name)) return &key;
  }
  return nullptr;
}

bool IsPasswordKey(std::string_view name) {
  std::string lower(name);
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return EndsWith(lower, "psswd") || (EndsWith(lower, "password") && lower.rfind("store", 0) != 0);
}

std::string KeyValueText(const AccountKey& key, const ServiceSettings& settings) {
  void* f = key.field(const_cast<ServiceSettings&>(settings));  // read only here
  switch (key.type) {
    case KeyType::kBool: return *static_cast<bool*>(f) ? "1" : "0";
    case KeyType::kNumber: return std::to_string(*static_cast<int32_t*>(f));
    case KeyType::kUnsigned: return std::to_string(*static_cast<uint32_t*>(f));
    case KeyType::kText: return *static_cast<std::string*>(f);
    case KeyType::kWideText: return WideToUtf8(*static_cast<WString*>(f));
    case KeyType::kAuthMode: return std::to_string(static_cast<int32_t>(*static_cast<SmtpAuthMode*>(f)));
    case KeyType::kGuid: return static_cast<Guid*>(f)->ToRegistryString();
  }
  return {};
}

bool SetKeyValue(const AccountKey& key, std::string_view value, ServiceSettings* settings, std::string* error) {
  if (key.read_only) {
    *error = key.name + " cannot be changed";
    return false;
  }
  void* f = key.field(*settings);
  int64_t n = 0;
  bool ok = true;
  std::string takes;
  switch (key.type) {
    case KeyType::kBool:
      ok = ReadBool(value, static_cast<bool*>(f));
      takes = "1 or 0";
      break;
    case KeyType::kNumber:
    case KeyType::kUnsigned:
    case KeyType::kAuthMode: {
      int64_t low = 0;
      int64_t high = key.type == KeyType::kUnsigned ? std::numeric_limits<uint32_t>::max()
                                                    : std::numeric_limits<int32_t>::max();
      if (EndsWith(key.name, "Port")) low = 1, high = 65535;
      if (EndsWith(key.name, "SocksVersion") || key.type == KeyType::kAuthMode) high = 3;
      ok = ReadNumber(value, low, high, &n);
      takes = "a number from " + std::to_string(low) + " to " + std::to_string(high);
      if (!ok) break;
      if (key.type == KeyType::kNumber) *static_cast<int32_t*>(f) = static_cast<int32_t>(n);
      if (key.type == KeyType::kUnsigned) *static_cast<uint32_t*>(f) = static_cast<uint32_t>(n);
      if (key.type == KeyType::kAuthMode) *static_cast<SmtpAuthMode*>(f) = static_cast<SmtpAuthMode>(n);
      break;
    }
    case KeyType::kText:
      *static_cast<std::string*>(f) = std::string(value);
      break;
    case KeyType::kWideText:
      *static_cast<WString*>(f) = Utf8ToWide(value);
      break;
    case KeyType::kGuid:
      ok = false;
      break;
  }
  if (!ok) *error = key.name + " takes " + takes + ", not \"" + std::string(value) + "\"";
  return ok;
}

}  // namespace trv::cli
