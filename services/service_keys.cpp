// The keys of a service's settings section, in the order the file keeps
// them. One walk over the keys serves loading and saving, so the order and
// the defaults are written down once.
#include <cstdint>
#include <limits>

#include "core/engine.h"
#include "core/settings_tree.h"
#include "net/secret.h"
#include "services/imap4_service.h"
#include "services/mail_service.h"
#include "services/password_cipher.h"
#include "services/pop3_service.h"

namespace trv {

namespace {

constexpr int32_t kMaxInt = std::numeric_limits<int32_t>::max();

// Reads a key into a field (the default when it is missing or unusable), or
// writes the field under the key. A save deletes the key before writing it,
// so the keys end up in walk order whatever order an older file had.
class KeyWalk {
 public:
  KeyWalk(Settings& settings, const std::string& section, bool saving)
      : settings_(settings), section_(section), saving_(saving) {}

  bool saving() const { return saving_; }
  Settings& settings() { return settings_; }
  const std::string& section() const { return section_; }
  Result result() const { return result_; }

  void Bool(const std::string& name, bool& v, bool def) {
    if (saving_) return Write(name, [&] { return settings_.WriteBoolean(section_, name, v); });
    v = settings_.ReadBoolean(section_, name, def);
  }
  // A value that is not a number, or lies outside lo..hi, loads (and saves)
  // as the default.
  void Int(const std::string& name, int32_t& v, int32_t def, int32_t lo = 0, int32_t hi = kMaxInt) {
    if (saving_) {
      if (v < lo || v > hi) v = def;  // saved as it would load
      return Write(name, [&] { return settings_.WriteInteger(section_, name, v); });
    }
    int32_t read = def;
    v = settings_.ReadInteger(section_, name, &read).ok() && read >= lo && read <= hi ? read : def;
  }
  void Bits(const std::string& name, uint32_t& v, uint32_t def, uint32_t hi) {
    auto n = static_cast<int32_t>(v);
    Int(name, n, static_cast<int32_t>(def), 0, static_cast<int32_t>(hi));
    v = static_cast<uint32_t>(n);
  }
  void Text(const std::string& name, std::string& v) {
    if (saving_) return Write(name, [&] { return settings_.WriteString(section_, name, v); });
    v = settings_.ReadString(section_, name);
  }
  // Unicode text; an 8-bit value (a hand-edited file) is taken as UTF-8.
  void Wide(const std::string& name, WString& v) {
    if (saving_) return Write(name, [&] { return settings_.WriteWideString(section_, name, v); });
    const std::string text = settings_.ReadString(section_, name);
    v = text.starts_with(kSettingsWideMark) ? settings_.ReadWideString(section_, name) : Utf8ToWide(text);
  }
  // Save only: binary values are read by their owners.
  void Binary(const std::string& name, std::span<const uint8_t> bytes) {
    Write(name, [&] { return settings_.WriteBinary(section_, name, bytes); });
  }
  void Delete(const std::string& name) {
    settings_.DeleteValue(section_, name).Ignore();  // a missing key is what we want
  }

 private:
  template <typename Fn>
  void Write(const std::string& name, Fn write) {
    Delete(name);
    const Result r = write();
    if (result_.ok() && r.failed()) result_ = r;
  }

  Settings& settings_;
  const std::string& section_;
  const bool saving_;
  Result result_;
};

// The account part of the password key; the server part comes from the
// protocol block being walked.
struct CipherContext {
  WString service_name;
  Guid guid;
};

// Host and port, and for SMTP the authentication mode between them.
void ProtocolHead(KeyWalk& w, const std::string& p, ProtocolSettings& s, int32_t default_port) {
  w.Text(p + "Host", s.host);
  w.Int(p + "Port", s.port, default_port, 1, 65535);
}

// Store flag, user name and password. Loading takes the plain key of older
// files when it is non-empty, else deciphers the binary key; saving never
// leaves the plain key behind.
void ProtocolCredentials(KeyWalk& w, const std::string& p, ProtocolSettings& s, const CipherContext& c) {
  const std::string user_key = p + "UserName", plain_key = p + "Password", cipher_key = p + "Psswd";
  w.Bool("Store" + p + "Password", s.store_password, false);
  const PasswordKey key = MakePasswordKey(c.service_name, c.guid, s.host, s.port);
  if (w.saving()) {
    w.Delete(plain_key);
    if (s.store_password) {
      w.Text(user_key, s.user_name);
      std::vector<uint8_t> stored = EncipherPassword(s.password, key);
      w.Binary(cipher_key, stored);
    } else {
      w.Delete(user_key);
      w.Delete(cipher_key);
    }
    return;
  }
  WipeSecret(&s.password);
  s.user_name.clear();
  if (!s.store_password) return;
  w.Text(user_key, s.user_name);
  s.password = w.settings().ReadString(w.section(), plain_key);
  if (!s.password.empty()) return;
  std::vector<uint8_t> stored;
  if (w.settings().ReadBinary(w.section(), cipher_key, &stored).ok() && !stored.empty()) {
    s.password = DecipherPassword(stored, key);
  }
}

void ProtocolTail(KeyWalk& w, const std::string& p, ProtocolSettings& s) {
  w.Int(p + "Timeout", s.timeout, 60, 1, 65535);
  w.Text(p + "SocksAddress", s.socks_address);
  w.Bool(p + "SocksAuth", s.socks_auth, false);
  w.Text(p + "SocksPassword", s.socks_password);
  w.Int(p + "SocksPort", s.socks_port, 1028, 1, 65535);
  w.Text(p + "SocksUserID", s.socks_user);
  w.Bits(p + "SocksVersion", s.socks_version, 0, 3);
  w.Bool(p + "UseSSL", s.use_ssl, false);
  w.Bool(p + "UseSASL", s.use_sasl, false);
  w.Bool(p + "SSLExplicit", s.ssl_explicit, true);
  w.Bool(p + "SSLAllowInsecure", s.ssl_allow_insecure, false);
  w.Bits(p + "SSLVersions", s.ssl_versions, 7, 0xFFFF);
  w.Bool(p + "SSLStrongEncryption", s.ssl_strong, false);
}

// The POP3 or IMAP4 block (IMAP4 keeps its root path after the password).
void IncomingKeys(KeyWalk& w, const std::string& p, ServiceSettings& s, bool root_path) {
  ProtocolHead(w, p, s.incoming, 110);
  ProtocolCredentials(w, p, s.incoming, {s.service_name, s.guid});
  if (root_path) w.Wide(p + "RootPath", s.imap4_root_path);
  ProtocolTail(w, p, s.incoming);
}

// Every common key and the SMTP block. Class, GUID and Storage are written
// only: the section name gives the GUID and the engine picks the storage.
void CommonKeys(KeyWalk& w, ServiceSettings& s, const char* service_class) {
  w.Bool("Synchronize", s.synchronize, true);
  w.Bool("SyncAtStartup", s.sync_at_startup, true);
  w.Int("SyncMinutes", s.sync_minutes, 0);
  w.Wide("Signature", s.signature);
  w.Bool("AddSignature", s.add_signature, false);
  w.Bool("DontAddSignatureToReplies", s.dont_add_signature_to_replies, true);
  if (w.saving()) {
    WString class_name = Utf8ToWide(service_class);
    w.Wide("Class", class_name);
    w.Binary("GUID", s.guid.bytes);
    w.Binary("Storage", s.storage_guid.bytes);
  }
  w.Wide("ServiceName", s.service_name);
  w.Wide("UserRealName", s.user_real_name);
  w.Wide("Organization", s.organization);
  w.Wide("EmailAddress", s.email_address);
  w.Wide("ReplyAddress", s.reply_address);
  w.Int("LoadMaxSize", s.load_max_size, kMaxInt);
  w.Int("LoadLastDays", s.load_last_days, kMaxInt);
  w.Int("LoadBodySize", s.load_body_size, 2048);
  w.Bool("DeleteOnServer", s.delete_on_server, false);
  w.Int("DeleteAfterDays", s.delete_after_days, kMaxInt);
  w.Bool("DeleteAfterLocalDeletion", s.delete_after_local_deletion, false);
  w.Text("ReadingCharset", s.reading_charset);
  w.Text("SendingCharset", s.sending_charset);
  w.Bool("8BitInHeaders", s.eight_bit_in_headers, false);
  w.Text("BodyEncoding", s.body_encoding);
  w.Wide("Connection", s.connection);

  ProtocolHead(w, "SMTP", s.smtp, 25);
  auto mode = static_cast<int32_t>(s.smtp_authentication);
  w.Int("SMTPAuthentication", mode, 0, 0, 3);
  s.smtp_authentication = static_cast<SmtpAuthMode>(mode);
  ProtocolCredentials(w, "SMTP", s.smtp, {s.service_name, s.guid});
  ProtocolTail(w, "SMTP", s.smtp);
}

}  // namespace

std::string MailService::SectionName(const Guid& guid) { return "Service." + guid.ToLowerString(); }

Result MailService::Load(Settings& settings, const Guid& id) {
  const std::string section = SectionName(id);
  if (!settings.HasSection(section)) return rc::kFail;
  ServiceSettings s;
  s.guid = id;
  s.storage_guid = storage_.id();
  KeyWalk walk(settings, section, false);
  CommonKeys(walk, s, ServiceClass());
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
  KeyWalk walk(tree, section, true);
  CommonKeys(walk, s, ServiceClass());
  Result r = walk.result();
  if (const Result incoming = SaveIncoming(tree, section, s); r.ok()) r = incoming;
  if (const Result flushed = engine_.FlushSettings(); r.ok()) r = flushed;
  return r;
}

void Pop3Service::LoadIncoming(Settings& settings, const std::string& section, ServiceSettings& s) {
  KeyWalk walk(settings, section, false);
  IncomingKeys(walk, "POP3", s, false);
}

Result Pop3Service::SaveIncoming(Settings& settings, const std::string& section, const ServiceSettings& s) {
  ServiceSettings copy = s;
  KeyWalk walk(settings, section, true);
  IncomingKeys(walk, "POP3", copy, false);
  return walk.result();
}

void Imap4Service::LoadIncoming(Settings& settings, const std::string& section, ServiceSettings& s) {
  KeyWalk walk(settings, section, false);
  IncomingKeys(walk, "IMAP4", s, true);
}

Result Imap4Service::SaveIncoming(Settings& settings, const std::string& section, const ServiceSettings& s) {
  ServiceSettings copy = s;
  KeyWalk walk(settings, section, true);
  IncomingKeys(walk, "IMAP4", copy, true);
  return walk.result();
}

}  // namespace trv
