#include "core/settings_file.h"

#include <system_error>

#include "base/durable_write.h"

namespace trv {

namespace {

// Returned by a replace that would overwrite settings it never read.
constexpr Result kNotRead = rc::kFail;

// A symbolic link is replaced through: the file it points to gets the new
// content and the link stays.
std::filesystem::path ReplaceTarget(const std::filesystem::path& p) {
  std::error_code ec;
  if (std::filesystem::is_symlink(p, ec)) {
    std::filesystem::path target = std::filesystem::weakly_canonical(p, ec);
    if (!ec) return target;
  }
  return p;
}

}  // namespace

std::unique_ptr<SettingsStream> OpenSettingsStream(const std::filesystem::path& path, int mode, Result* error,
                                                   FileSystem& fs) {
  Result ignored;
  Result& err = error != nullptr ? *error : ignored;
  if (mode != kSettingsOpenRead && mode != kSettingsOpenAlways) {
    err = rc::kInvalidArg;
    return nullptr;
  }
  std::string probe;
  err = fs.ReadFile(path, &probe);
  if (err.ok()) return std::unique_ptr<SettingsStream>(new SettingsStream(path, false, fs));
  if (mode == kSettingsOpenRead || fs.Exists(path)) return nullptr;

  err = fs.CreateDirectories(path.parent_path());
  if (err.ok()) err = WriteFileDurably(fs, path, {});
  if (err.failed()) return nullptr;
  return std::unique_ptr<SettingsStream>(new SettingsStream(path, true, fs));
}

Result SettingsStream::ReadAll(std::string* bytes) {
  const Result r = fs_.ReadFile(path_, bytes);
  if (r.failed()) return r;
  MutexLock lock(mu_);
  known_ = true;
  return rc::kOk;
}

Result SettingsStream::Replace(std::string_view bytes) {
  MutexLock lock(mu_);
  return ReplaceLocked(bytes);
}

Result SettingsStream::ReplaceLocked(std::string_view bytes) {
  if (!known_ && fs_.Exists(path_)) return kNotRead;
  const Result r = WriteFileDurably(fs_, ReplaceTarget(path_), bytes);
  if (r.ok()) known_ = true;
  return r;
}

Result LoadSettings(Settings& settings, SettingsStream& stream, LogSink* log) {
  std::string bytes;
  const Result r = stream.ReadAll(&bytes);
  if (r.failed()) {
    if (log != nullptr) log->Log("Cannot read settings file " + stream.path().string() + ": " + ResultText(r));
    return r;
  }
  for (const SettingsDiagnostic& d : settings.LoadFromBytes(bytes)) {
    if (log != nullptr) {
      log->Log("Settings file " + stream.path().string() + ", line " + std::to_string(d.line) + ": " + d.message);
    }
  }
  return rc::kOk;
}

Result SaveSettings(const Settings& settings, SettingsStream& stream, LogSink* log) {
  MutexLock lock(stream.mu_);
  const Result r = stream.ReplaceLocked(settings.SaveToBytes());
  if (r.failed() && log != nullptr) {
    const std::string cause =
        r == kNotRead ? std::string("its content could not be read, so it is left unchanged") : ResultText(r);
    log->Log("Cannot save settings file " + stream.path().string() + ": " + cause);
  }
  return r;
}

}  // namespace trv
