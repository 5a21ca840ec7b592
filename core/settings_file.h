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
// Saving is the durable write of base/durable_write.h ("<name>.tmp" beside
// the file, renamed over it): after a crash at any point the file holds
// either the old or the new settings, never a part. The file is 0600 (it
// holds enciphered passwords). Every file operation goes through the
// FileSystem given at opening, so tests can fail any of them.
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
#include "base/file_system.h"
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
  friend Result SaveSettings(const Settings&, SettingsStream&, LogSink*);
  friend std::unique_ptr<SettingsStream> OpenSettingsStream(const std::filesystem::path&, int, Result*, FileSystem&);
  SettingsStream(std::filesystem::path path, bool known, FileSystem& fs)
      : path_(std::move(path)), fs_(fs), known_(known) {}

  Result ReplaceLocked(std::string_view bytes) REQUIRES(mu_);

  const std::filesystem::path path_;
  FileSystem& fs_;  // outlives the stream
  Mutex mu_;
  bool known_ GUARDED_BY(mu_);  // the content was read, created empty, or written by us
};

// Opens the settings file in a mode above. Returns none when it cannot be
// opened in that mode; *error (optional) gets the cause: kInvalidArg for an
// unknown mode, the system error otherwise. `fs` must outlive the stream.
std::unique_ptr<SettingsStream> OpenSettingsStream(const std::filesystem::path& path, int mode,
                                                   Result* error = nullptr,
                                                   FileSystem& fs = PosixFileSystem::Instance());

// Reads the stream into the tree, replacing what the tree held. Each problem
// in the text becomes a log line "Settings file <path>, line <n>: <problem>";
// a read failure leaves the tree as it was and logs "Cannot read settings file
// <path>: <cause>". `log` may be null.
Result LoadSettings(Settings& settings, SettingsStream& stream, LogSink* log);

// Writes the whole tree to the stream. A failure logs "Cannot save settings
// file <path>: <cause>" and leaves the file as it was.
Result SaveSettings(const Settings& settings, SettingsStream& stream, LogSink* log);

}  // namespace trv
