// The key table, and the one walk over it that loads and saves a service.
#include "services/service_keys.h"

#include <charconv>
#include <span>

#include "core/engine.h"
#include "core/settings_tree.h"
#include "net/secret.h"
#include "services/imap4_service.h"
#include "services/password_cipher.h"
#include "services/pop3_service.h"

namespace trv {

namespace {

constexpr int32_t kMaxInt = std::numeric_limits<int32_t>::max();
using S = ServiceSettings;
using P = ProtocolSettings;

template <typename T>
ServiceKey Key(std::string name, KeyType type, T S::*member, int32_t def = 0, int32_t low = 0, int32_t high = kMaxInt) {
  return {std::move(name), type, KeyRole::kSetting, def, low, high, {}, false,
          [member](S& s) -> KeyField { return &(s.*member); }};
}

// A key of the SMTP block (smtp) or of the incoming one.
template <typename T>
ServiceKey Block(std::string name, bool smtp, KeyType type, T P::*member, int32_t def = 0, int32_t low = 0,
                 int32_t high = kMaxInt) {
  return {std::move(name), type, KeyRole::kSetting, def, low, high, {}, false,
          [smtp, member](S& s) -> KeyField { return &((smtp ? s.smtp : s.incoming).*member); }};
}

ServiceKey As(KeyRole role, ServiceKey key) {
  key.role = role;
  return key;
}

void AddProtocolKeys(std::vector<ServiceKey>& keys, const std::string& p) {
  const bool smtp = p == "SMTP";
  keys.push_back(Block(p + "Host", smtp, KeyType::kText, &P::host));
  keys.push_back(Block(p + "Port", smtp, KeyType::kNumber, &P::port, smtp ? 25 : 110, 1, 65535));
  if (smtp) keys.push_back(Key("SMTPAuthentication", KeyType::kNumber, &S::smtp_authentication, 0, 0, 3));
  keys.push_back(Block("Store" + p + "Password", smtp, KeyType::kBool, &P::store_password));
  keys.push_back(Block(p + "UserName", smtp, KeyType::kText, &P::user_name));
  keys.back().needs_store = true;
  keys.push_back({p + "Psswd", KeyType::kCipher, KeyRole::kPassword, 0, 0, 0, p + "Password", false,
                  [smtp](S& s) -> KeyField { return smtp ? &s.smtp : &s.incoming; }});
  if (p == "IMAP4") keys.push_back(Key("IMAP4RootPath", KeyType::kWideText, &S::imap4_root_path));
  keys.push_back(Block(p + "Timeout", smtp, KeyType::kNumber, &P::timeout, 60, 1, 65535));
  keys.push_back(Block(p + "SocksAddress", smtp, KeyType::kText, &P::socks_address));
  keys.push_back(Block(p + "SocksAuth", smtp, KeyType::kBool, &P::socks_auth));
  keys.push_back(As(KeyRole::kPassword, Block(p + "SocksPassword", smtp, KeyType::kText, &P::socks_password)));
  keys.push_back(Block(p + "SocksPort", smtp, KeyType::kNumber, &P::socks_port, 1028, 1, 65535));
  keys.push_back(Block(p + "SocksUserID", smtp, KeyType::kText, &P::socks_user));
  keys.push_back(Block(p + "SocksVersion", smtp, KeyType::kNumber, &P::socks_version, 0, 0, 3));
  keys.push_back(Block(p + "UseSSL", smtp, KeyType::kBool, &P::use_ssl));
  keys.push_back(Block(p + "UseSASL", smtp, KeyType::kBool, &P::use_sasl));
  keys.push_back(Block(p + "SSLExplicit", smtp, KeyType::kBool, &P::ssl_explicit, 1));
  keys.push_back(Block(p + "SSLAllowInsecure", smtp, KeyType::kBool, &P::ssl_allow_insecure));
  keys.push_back(Block(p + "SSLVersions", smtp, KeyType::kNumber, &P::ssl_versions, 7, 0, 0xFFFF));
  keys.push_back(Block(p + "SSLStrongEncryption", smtp, KeyType::kBool, &P::ssl_strong));
}

// The common keys and the SMTP block; the incoming block follows them.
std::vector<ServiceKey> CommonKeys() {
  using enum KeyType;
  std::vector<ServiceKey> keys = {
      Key("Synchronize", kBool, &S::synchronize, 1),
      Key("SyncAtStartup", kBool, &S::sync_at_startup, 1),
      Key("SyncMinutes", kNumber, &S::sync_minutes),
      Key("Signature", kWideText, &S::signature),
      Key("AddSignature", kBool, &S::add_signature),
      Key("DontAddSignatureToReplies", kBool, &S::dont_add_signature_to_replies, 1),
      {"Class", kClass, KeyRole::kIdentity, 0, 0, 0, {}, false, [](S&) -> KeyField { return {}; }},
      As(KeyRole::kIdentity, Key("GUID", kGuid, &S::guid)),
      As(KeyRole::kIdentity, Key("Storage", kGuid, &S::storage_guid)),
      Key("ServiceName", kWideText, &S::service_name),
      Key("UserRealName", kWideText, &S::user_real_name),
      Key("Organization", kWideText, &S::organization),
      Key("EmailAddress", kWideText, &S::email_address),
      Key("ReplyAddress", kWideText, &S::reply_address),
      Key("LoadMaxSize", kNumber, &S::load_max_size, kMaxInt),
      Key("LoadLastDays", kNumber, &S::load_last_days, kMaxInt),
      Key("LoadBodySize", kNumber, &S::load_body_size, 2048),
      Key("DeleteOnServer", kBool, &S::delete_on_server),
      Key("DeleteAfterDays", kNumber, &S::delete_after_days, kMaxInt),
      Key("DeleteAfterLocalDeletion", kBool, &S::delete_after_local_deletion),
      Key("ReadingCharset", kText, &S::reading_charset),
      Key("SendingCharset", kText, &S::sending_charset),
      Key("8BitInHeaders", kBool, &S::eight_bit_in_headers),
      Key("BodyEncoding", kText, &S::body_encoding),
      Key("Connection", kWideText, &S::connection),
  };
  AddProtocolKeys(keys, "SMTP");
  return keys;
}

std::vector<ServiceKey> MakeKeys(const std::string& incoming) {
  std::vector<ServiceKey> keys = CommonKeys();
  if (!incoming.empty()) AddProtocolKeys(keys, incoming);
  return keys;
}

int64_t NumberOf(const KeyField& field) {
  if (auto* p = std::get_if<int32_t*>(&field)) return **p;
  if (auto* p = std::get_if<uint32_t*>(&field)) return **p;
  if (auto* p = std::get_if<SmtpAuthMode*>(&field)) return static_cast<int32_t>(**p);
  return 0;
}

void SetNumber(const KeyField& field, int64_t n) {
  if (auto* p = std::get_if<int32_t*>(&field)) **p = static_cast<int32_t>(n);
  if (auto* p = std::get_if<uint32_t*>(&field)) **p = static_cast<uint32_t>(n);
  if (auto* p = std::get_if<SmtpAuthMode*>(&field)) **p = static_cast<SmtpAuthMode>(n);
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

// Loads every key of `keys` into `s` (the default when a value is missing
// or unusable), or saves them. A save deletes each key before writing it,
// so the keys end up in table order whatever order an older file had.
class KeyWalk {
 public:
  KeyWalk(Settings& settings, const std::string& section, std::string_view service_class)
      : st_(settings), section_(section), class_(service_class) {}

  void Load(std::span<const ServiceKey> keys, S& s) {
    for (const ServiceKey& key : keys) LoadKey(key, s);
  }
  Result Save(std::span<const ServiceKey> keys, S& s) {
    for (const ServiceKey& key : keys) SaveKey(key, s);
    return result_;
  }

 private:
  void LoadKey(const ServiceKey& key, S& s) {
    const KeyField field = key.field(s);
    switch (key.type) {
      case KeyType::kBool:
        *std::get<bool*>(field) = st_.ReadBoolean(section_, key.name, key.def != 0);
        return;
      case KeyType::kNumber: {
        int32_t read = key.def;
        const bool ok = st_.ReadInteger(section_, key.name, &read).ok() && read >= key.low && read <= key.high;
        return SetNumber(field, ok ? read : key.def);
      }
      case KeyType::kText: {
        std::string& text = *std::get<std::string*>(field);
        text.clear();
        if (!key.needs_store || StoreFlag(s, key)) text = st_.ReadString(section_, key.name);
        return;
      }
      case KeyType::kWideText: {
        const std::string text = st_.ReadString(section_, key.name);
        *std::get<WString*>(field) =
            text.starts_with(kSettingsWideMark) ? st_.ReadWideString(section_, key.name) : Utf8ToWide(text);
        return;
      }
      case KeyType::kGuid:
      case KeyType::kClass:
        return;  // written only
      case KeyType::kCipher: {
        // The plain key of an older file wins when it is non-empty.
        P& block = *std::get<P*>(field);
        WipeSecret(&block.password);
        if (!block.store_password) return;
        block.password = st_.ReadString(section_, key.old_name);
        if (!block.password.empty()) return;
        std::vector<uint8_t> stored;
        if (st_.ReadBinary(section_, key.name, &stored).ok() && !stored.empty()) {
          block.password = DecipherPassword(stored, CipherKey(s, block));
        }
        return;
      }
    }
  }

  void SaveKey(const ServiceKey& key, S& s) {
    const KeyField field = key.field(s);
    const std::string& name = key.name;
    switch (key.type) {
      case KeyType::kBool:
        return Write(name, [&] { return st_.WriteBoolean(section_, name, *std::get<bool*>(field)); });
      case KeyType::kNumber: {
        int64_t n = NumberOf(field);
        if (n < key.low || n > key.high) n = key.def;  // saved as it would load
        return Write(name, [&] { return st_.WriteInteger(section_, name, static_cast<int32_t>(n)); });
      }
      case KeyType::kText:
        if (key.needs_store && !StoreFlag(s, key)) return Delete(name);
        return Write(name, [&] { return st_.WriteString(section_, name, *std::get<std::string*>(field)); });
      case KeyType::kWideText:
        return Write(name, [&] { return st_.WriteWideString(section_, name, *std::get<WString*>(field)); });
      case KeyType::kGuid:
        return Write(name, [&] { return st_.WriteBinary(section_, name, std::get<Guid*>(field)->bytes); });
      case KeyType::kClass:
        return Write(name, [&] { return st_.WriteWideString(section_, name, Utf8ToWide(class_)); });
      case KeyType::kCipher: {
        Delete(key.old_name);  // never leave the plain key behind
        const P& block = *std::get<P*>(field);
        if (!block.store_password) return Delete(name);
        const std::vector<uint8_t> stored = EncipherPassword(block.password, CipherKey(s, block));
        return Write(name, [&] { return st_.WriteBinary(section_, name, stored); });
      }
    }
  }

  // The account part of the password key, and the server part of the block.
  static PasswordKey CipherKey(const S& s, const P& block) {
    return MakePasswordKey(s.service_name, s.guid, block.host, block.port);
  }
  // The Store...Password flag of the block a user name key belongs to.
  static bool StoreFlag(const S& s, const ServiceKey& key) {
    return (key.name.starts_with("SMTP") ? s.smtp : s.incoming).store_password;
  }

  void Delete(const std::string& name) {
    st_.DeleteValue(section_, name).Ignore();  // a missing key is what we want
  }
  template <typename Fn>
  void Write(const std::string& name, Fn write) {
    Delete(name);
    const Result r = write();
    if (result_.ok() && r.failed()) result_ = r;
  }

  Settings& st_;
  const std::string& section_;
  const std::string_view class_;
  Result result_;
};

std::span<const ServiceKey> Incoming(std::string_view service_class) {
  return std::span(ServiceKeys(service_class)).subspan(ServiceKeys("").size());
}

}  // namespace

const std::vector<ServiceKey>& ServiceKeys(std::string_view service_class) {
  static const std::vector<ServiceKey> pop3 = MakeKeys("POP3");
  static const std::vector<ServiceKey> imap4 = MakeKeys("IMAP4");
  static const std::vector<ServiceKey> other = MakeKeys("");
  return service_class == "POP3" ? pop3 : service_class == "IMAP4" ? imap4 : other;
}

const ServiceKey* FindServiceKey(std::string_view service_class, std::string_view name) {
  for (const ServiceKey& key : ServiceKeys(service_class)) {
    if (EqualsNoCase(key.name, name) || (!key.old_name.empty() && EqualsNoCase(key.old_name, name))) return &key;
  }
  return nullptr;
}

std::string KeyText(const ServiceKey& key, const ServiceSettings& settings, std::string_view service_class) {
  const KeyField field = key.field(const_cast<ServiceSettings&>(settings));  // only read here
  if (key.role == KeyRole::kPassword) {
    const std::string& secret =
        key.type == KeyType::kCipher ? std::get<P*>(field)->password : *std::get<std::string*>(field);
    return secret.empty() ? "not stored" : "stored";
  }
  switch (key.type) {
    case KeyType::kBool: return *std::get<bool*>(field) ? "1" : "0";
    case KeyType::kNumber: return std::to_string(NumberOf(field));
    case KeyType::kText: return *std::get<std::string*>(field);
    case KeyType::kWideText: return WideToUtf8(*std::get<WString*>(field));
    case KeyType::kGuid: return std::get<Guid*>(field)->ToRegistryString();
    case KeyType::kClass: return std::string(service_class);
    case KeyType::kCipher: break;
  }
  return {};
}

bool SetKeyFromText(const ServiceKey& key, std::string_view text, ServiceSettings* settings, std::string* error) {
  if (key.role != KeyRole::kSetting) {
    *error = key.name + (key.role == KeyRole::kPassword ? " is a password" : " cannot be changed");
    return false;
  }
  const KeyField field = key.field(*settings);
  std::string takes;
  switch (key.type) {
    case KeyType::kBool:
      if (ReadBool(text, std::get<bool*>(field))) return true;
      takes = "1 or 0";
      break;
    case KeyType::kNumber: {
      int64_t n = 0;
      const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), n);
      if (ec == std::errc() && end == text.data() + text.size() && n >= key.low && n <= key.high) {
        SetNumber(field, n);
        return true;
      }
      takes = "a number from " + std::to_string(key.low) + " to " + std::to_string(key.high);
      break;
    }
    case KeyType::kText:
      *std::get<std::string*>(field) = std::string(text);
      return true;
    case KeyType::kWideText:
      *std::get<WString*>(field) = Utf8ToWide(text);
      return true;
    case KeyType::kGuid:
    case KeyType::kClass:
    case KeyType::kCipher:
      break;  // identity and password keys, refused above
  }
  *error = key.name + " takes " + takes + ", not \"" + std::string(text) + "\"";
  return false;
}

std::string MailService::SectionName(const Guid& guid) { return "Service." + guid.ToLowerString(); }

Result MailService::Load(Settings& settings, const Guid& id) {
  const std::string section = SectionName(id);
  if (!settings.HasSection(section)) return rc::kFail;
  ServiceSettings s;
  s.guid = id;
  s.storage_guid = storage_.id();
  KeyWalk(settings, section, ServiceClass()).Load(std::span(ServiceKeys("")), s);
  LoadIncoming(settings, section, s);
  SetSettings(s);
  return rc::kOk;
}

Result MailService::Save() {
  ServiceSettings s = settings();
  s.storage_guid = storage_.id();
  Settings& tree = engine_.settings();
  const std::string section = SectionName(s.guid);
  if (const Result r = tree.CreateSection(section); r.failed()) return r;
  Result r = KeyWalk(tree, section, ServiceClass()).Save(std::span(ServiceKeys("")), s);
  if (const Result incoming = SaveIncoming(tree, section, s); r.ok()) r = incoming;
  if (const Result flushed = engine_.FlushSettings(); r.ok()) r = flushed;
  return r;
}

void Pop3Service::LoadIncoming(Settings& settings, const std::string& section, ServiceSettings& s) {
  KeyWalk(settings, section, ServiceClass()).Load(Incoming(ServiceClass()), s);
}

Result Pop3Service::SaveIncoming(Settings& settings, const std::string& section, const ServiceSettings& s) {
  ServiceSettings copy = s;
  return KeyWalk(settings, section, ServiceClass()).Save(Incoming(ServiceClass()), copy);
}

void Imap4Service::LoadIncoming(Settings& settings, const std::string& section, ServiceSettings& s) {
  KeyWalk(settings, section, ServiceClass()).Load(Incoming(ServiceClass()), s);
}

Result Imap4Service::SaveIncoming(Settings& settings, const std::string& section, const ServiceSettings& s) {
  ServiceSettings copy = s;
  const Result r = KeyWalk(settings, section, ServiceClass()).Save(Incoming(ServiceClass()), copy);
  const Result folders = SaveFolderSections(settings, s.guid);
  return r.failed() ? r : folders;
}

}  // namespace trv
