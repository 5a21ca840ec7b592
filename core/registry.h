// The program's registry key "\Software\Tarvo\Mail2" (values "DataDir" and
// "InstallDir", the interface's options under "CMLGUIParams" subkeys) kept as
// a file in the settings-file format, by default
// ${XDG_CONFIG_HOME:-~/.config}/Tarvo/Mail2.ini. The key's own values are the
// file's root values; each subkey is a section ("CMLGUIParams\View" is the
// section of that path).
//
// Value kinds as the registry has them:
//   string  wide text, written as plain UTF-8 so that a person can edit a
//           path in the file; a value with the UTF-8 mark (the settings
//           file's wide-string form) is read too. Line breaks are refused.
//   dword   32-bit number, written as a signed decimal ("%ld" of the bits).
//   binary  bytes, written as "584D" and hexadecimal pairs.
//
// Opening creates the directory and an empty file when they are missing,
// like creating a registry key. A key file that cannot be opened behaves like
// a registry key that cannot be opened: Open fails and the caller reads and
// writes nothing. Changes are kept in memory until Flush (also called by the
// destructor), which replaces the file atomically and only when something
// changed.
//
// Threads: the key's values may be read and written from any thread; Flush
// may run while other threads write (it saves the state at its start).
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "core/activity_log.h"
#include "base/result.h"
#include "core/settings_file.h"
#include "core/settings_tree.h"
#include "base/wide_string.h"

namespace trv {

class RegistryKey {
 public:
  static constexpr std::string_view kFileName = "Mail2.ini";

  // ${XDG_CONFIG_HOME}/Tarvo/Mail2.ini when XDG_CONFIG_HOME is an absolute
  // path, else ~/.config/Tarvo/Mail2.ini (home from $HOME, else the user
  // database); empty when no home directory is known.
  static std::filesystem::path DefaultPath();

  // Opens or creates the key file. On failure *key is left null, the result
  // names the cause and a line "Cannot open registry file <path>: <cause>"
  // goes to `log` (optional).
  static Result Open(const std::filesystem::path& file, std::unique_ptr<RegistryKey>* key, LogSink* log = nullptr);

  ~RegistryKey();
  RegistryKey(const RegistryKey&) = delete;
  RegistryKey& operator=(const RegistryKey&) = delete;

  const std::filesystem::path& path() const { return stream_->path(); }

  // `subkey` is a path below the key ("" for the key itself). Reads give
  // Settings::kNotFound for a missing value and Settings::kWrongType for a
  // value of another kind; *value is changed only on success.
  Result ReadString(std::string_view subkey, std::string_view name, WString* value) const;
  Result WriteString(std::string_view subkey, std::string_view name, WStringView value);
  Result ReadDword(std::string_view subkey, std::string_view name, uint32_t* value) const;
  Result WriteDword(std::string_view subkey, std::string_view name, uint32_t value);
  Result ReadBinary(std::string_view subkey, std::string_view name, std::vector<uint8_t>* value) const;
  Result WriteBinary(std::string_view subkey, std::string_view name, std::span<const uint8_t> value);
  Result DeleteValue(std::string_view subkey, std::string_view name);
  Result DeleteSubkey(std::string_view subkey);

  // Saves the key file when it changed since it was opened or last saved.
  Result Flush();

 private:
  RegistryKey(std::unique_ptr<SettingsStream> stream, LogSink* log);

  std::unique_ptr<SettingsStream> stream_;
  LogSink* const log_;
  Settings values_;
  Mutex flush_mu_;
  uint64_t saved_changes_ GUARDED_BY(flush_mu_) = 0;
};

}  // namespace trv
