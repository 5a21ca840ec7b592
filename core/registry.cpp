#include "core/registry.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

namespace trv {

std::filesystem::path RegistryKey::DefaultPath() {
  std::filesystem::path config;
  const char* xdg = std::getenv("XDG_CONFIG_HOME");
  if (xdg != nullptr && xdg[0] == '/') {
    config = xdg;
  } else {
    const char* home = std::getenv("HOME");
    if (home == nullptr || home[0] == '\0') {
      const passwd* pw = ::getpwuid(::getuid());
      home = pw != nullptr ? pw->pw_dir : nullptr;
    }
    if (home == nullptr || home[0] == '\0') return {};
    config = std::filesystem::path(home) / ".config";
  }
  return config / "Tarvo" / kFileName;
}

Result RegistryKey::Open(const std::filesystem::path& file, std::unique_ptr<RegistryKey>* key, LogSink* log) {
  key->reset();
  Result r;
  std::unique_ptr<SettingsStream> stream = OpenSettingsStream(file, kSettingsOpenAlways, &r);
  if (stream == nullptr) {
    if (log != nullptr) log->Log("Cannot open registry file " + file.string() + ": " + ResultText(r));
    return r;
  }
  std::unique_ptr<RegistryKey> opened(new RegistryKey(std::move(stream), log));
  r = LoadSettings(opened->values_, *opened->stream_, log);
  if (r.failed()) return r;
  {
    MutexLock lock(opened->flush_mu_);
    opened->saved_changes_ = opened->values_.change_count();
  }
  *key = std::move(opened);
  return rc::kOk;
}

RegistryKey::RegistryKey(std::unique_ptr<SettingsStream> stream, LogSink* log)
    : stream_(std::move(stream)), log_(log) {}

RegistryKey::~RegistryKey() { Flush().Ignore(); }

Result RegistryKey::ReadString(std::string_view subkey, std::string_view name, WString* value) const {
  const std::optional<SettingsType> type = values_.TypeOfValue(subkey, name);
  if (!type) return Settings::kNotFound;
  if (*type == SettingsType::kStringArray || *type == SettingsType::kWideStringArray) return Settings::kWrongType;
  if (*type == SettingsType::kWideString) {
    *value = values_.ReadWideString(subkey, name);
    return rc::kOk;
  }
  const std::string text = values_.ReadString(subkey, name);
  *value = DecodeSettingsWide(text).value_or(Utf8ToWide(text));
  return rc::kOk;
}

Result RegistryKey::WriteString(std::string_view subkey, std::string_view name, WStringView value) {
  return values_.WriteString(subkey, name, WideToUtf8(value));
}

Result RegistryKey::ReadDword(std::string_view subkey, std::string_view name, uint32_t* value) const {
  int32_t v = 0;
  const Result r = values_.ReadInteger(subkey, name, &v);
  if (r.ok()) *value = static_cast<uint32_t>(v);
  return r;
}

Result RegistryKey::WriteDword(std::string_view subkey, std::string_view name, uint32_t value) {
  return values_.WriteInteger(subkey, name, static_cast<int32_t>(value));
}

Result RegistryKey::ReadBinary(std::string_view subkey, std::string_view name, std::vector<uint8_t>* value) const {
  return values_.ReadBinary(subkey, name, value);
}

Result RegistryKey::WriteBinary(std::string_view subkey, std::string_view name, std::span<const uint8_t> value) {
  return values_.WriteBinary(subkey, name, value);
}

Result RegistryKey::DeleteValue(std::string_view subkey, std::string_view name) {
  return values_.DeleteValue(subkey, name);
}

Result RegistryKey::DeleteSubkey(std::string_view subkey) { return values_.DeleteSection(subkey); }

Result RegistryKey::Flush() {
  MutexLock lock(flush_mu_);
  const uint64_t changes = values_.change_count();
  if (changes == saved_changes_) return rc::kOk;
  const Result r = SaveSettings(values_, *stream_, log_);
  if (r.ok()) saved_changes_ = changes;
  return r;
}

}  // namespace trv
