// The settings file on disk: opening it by mode, reading it whole, and
// replacing it whole without ever leaving a truncated file behind.
//
// Open modes:
//   kSettingsOpenRead (1)    the file must exist as a regular file and be
//                            readable; nothing is created.
//   kSettingsOpenAlways (4)  as mode 1 when the file exists; otherwise an empty
//                            file is created (with its directory).
// The engine tries mode 1 first and mode 4 when that fails.
//
// Saving writes "<name>.tmp" in the same directory, flushes it to disk,
// renames it over the file and flushes the directory, so after a crash at any
// point the file holds either the old or the new settings, never a part. A
// stale "<name>.tmp" left by a crash is simply overwritten by the next save.
//
// A stream refuses to replace an existing file whose content it has not read
// successfully: settings that could not be loaded are never overwritten by an
// empty or partial tree.
//
// Threads: a stream may be used from any thread. Saves through one stream are
// serialised, and each writes the tree as it stands when that save begins,
// so a later save never loses to an earlier one.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "core/activity_log.h"
#include "base/result.h"
#include "core/settings_tree.h"
#include "base/thread_annotations.h"

namespace trv {

inline constexpr int kSettingsOpenRead = 1;
inline constexpr int kSettingsOpenAlways = 4;

class SettingsStream {
 public:
  const std::filesystem::path& path() const { return path_; }

  // The whole file. A failure names its cause in the result (from errno).
  Result ReadAll(std::string* bytes) EXCLUDES(mu_);

  // Replaces the file's content atomically (see above). On failure the file
  // is unchanged and the temporary file removed.
  Result Replace(std::string_view bytes) EXCLUDES(mu_);

 private:
  friend std::unique_ptr<SettingsStream> OpenSettingsStream(const std::filesystem::path&, int, Result*);
  friend Result SaveSettings(const Settings&, SettingsStream&, LogSink*);
  explicit SettingsStream(std::filesystem::path path, bool known) : path_(std::move(path)), known_(known) {}

  Result ReplaceLocked(std::string_view bytes) REQUIRES(mu_);

  const std::filesystem::path path_;
  Mutex mu_;
  bool known_ GUARDED_BY(mu_);  // the content was read, created empty, or written by us
};

// Opens the settings file in a mode above. Returns none when it cannot be
// opened in that mode; *error (optional) gets the cause: kInvalidArg for an
// unknown mode, the system error otherwise.
std::unique_ptr<SettingsStream> OpenSettingsStream(const std::filesystem::path& path, int mode,
                                                   Result* error = nullptr);

// Reads the stream into the tree, replacing what the tree held. Each problem
// in the text becomes a log line "Settings file <path>, line <n>: <problem>";
// a read failure leaves the tree as it was and logs "Cannot read settings file
// <path>: <cause>". `log` may be null.
Result LoadSettings(Settings& settings, SettingsStream& stream, LogSink* log);

// Writes the whole tree to the stream. A failure logs "Cannot save settings
// file <path>: <cause>" and leaves the file as it was.
Result SaveSettings(const Settings& settings, SettingsStream& stream, LogSink* log);

}  // namespace trv
