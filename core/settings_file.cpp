#include "core/settings_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "base/file_io.h"

namespace trv {

namespace {

// Returned by a replace that would overwrite settings it never read.
constexpr Result kNotRead = rc::kFail;

Result LastError() { return ResultFromErrno(errno); }

bool FileExists(const std::filesystem::path& p) {
  struct stat st;
  return ::lstat(p.c_str(), &st) == 0;
}

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

Result CheckReadable(const std::filesystem::path& p) {
  const int fd = ::open(p.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return LastError();
  struct stat st;
  Result r = rc::kOk;
  if (::fstat(fd, &st) != 0) {
    r = LastError();
  } else if (!S_ISREG(st.st_mode)) {
    r = ResultFromErrno(S_ISDIR(st.st_mode) ? EISDIR : EINVAL);
  }
  ::close(fd);
  return r;
}

}  // namespace

std::unique_ptr<SettingsStream> OpenSettingsStream(const std::filesystem::path& path, int mode, Result* error) {
  Result ignored;
  Result& err = error != nullptr ? *error : ignored;
  if (mode != kSettingsOpenRead && mode != kSettingsOpenAlways) {
    err = rc::kInvalidArg;
    return nullptr;
  }
  err = CheckReadable(path);
  if (err.ok()) return std::unique_ptr<SettingsStream>(new SettingsStream(path, false));
  if (mode == kSettingsOpenRead || FileExists(path)) return nullptr;

  std::error_code ec;
  if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path(), ec);
  if (ec) {
    err = ResultFromErrno(ec.value());
    return nullptr;
  }
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) {
    err = LastError();
    return nullptr;
  }
  ::close(fd);
  SyncDirectory(path.parent_path());
  err = rc::kOk;
  return std::unique_ptr<SettingsStream>(new SettingsStream(path, true));
}

Result SettingsStream::ReadAll(std::string* bytes) {
  const Result r = ReadWholeFile(path_, bytes);
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
  if (!known_ && FileExists(path_)) return kNotRead;
  const std::filesystem::path target = ReplaceTarget(path_);
  std::filesystem::path temp = target;
  temp += ".tmp";

  // Keep the permissions of the file being replaced; a new file is private
  // to its owner, since it holds enciphered passwords.
  mode_t perms = 0600;
  struct stat st;
  if (::stat(target.c_str(), &st) == 0) perms = st.st_mode & 07777;

  const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, perms);
  if (fd < 0) return LastError();
  Result r = WriteAllBytes(fd, bytes);
  if (r.ok() && ::fchmod(fd, perms) != 0) r = LastError();
  if (r.ok() && ::fsync(fd) != 0) r = LastError();
  if (::close(fd) != 0 && r.ok()) r = LastError();
  if (r.ok() && ::rename(temp.c_str(), target.c_str()) != 0) r = LastError();
  if (r.failed()) {
    ::unlink(temp.c_str());
    return r;
  }
  SyncDirectory(target.parent_path());
  known_ = true;
  return rc::kOk;
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
