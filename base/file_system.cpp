#include "base/file_system.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "base/file_io.h"

namespace trv {

namespace {

Result LastError() { return ResultFromErrno(errno); }

}  // namespace

PosixFileSystem& PosixFileSystem::Instance() {
  static PosixFileSystem ops;
  return ops;
}

Result PosixFileSystem::WriteNewFile(const std::filesystem::path& path, std::string_view bytes) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return LastError();
  Result r = WriteAllBytes(fd, bytes);
  if (r.ok() && ::fsync(fd) != 0) r = LastError();
  if (::close(fd) != 0 && r.ok()) r = LastError();
  return r;
}

Result PosixFileSystem::ReadFile(const std::filesystem::path& path, std::string* bytes) {
  return ReadWholeFile(path, bytes);
}

Result PosixFileSystem::RemoveFile(const std::filesystem::path& path) {
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) return LastError();
  return rc::kOk;
}

Result PosixFileSystem::Rename(const std::filesystem::path& from, const std::filesystem::path& to) {
  if (::rename(from.c_str(), to.c_str()) != 0) return LastError();
  return rc::kOk;
}

Result PosixFileSystem::CopyFile(const std::filesystem::path& from, const std::filesystem::path& to) {
  std::string bytes;
  Result r = ReadFile(from, &bytes);
  if (r.failed()) return r;
  std::filesystem::path temp = to;
  temp += ".copy";
  r = WriteNewFile(temp, bytes);
  if (r.ok()) r = Rename(temp, to);
  if (r.failed()) {
    ::unlink(temp.c_str());
    return r;
  }
  SyncDirectory(to.parent_path());
  return rc::kOk;
}

Result PosixFileSystem::MoveFile(const std::filesystem::path& from, const std::filesystem::path& to) {
  if (::rename(from.c_str(), to.c_str()) == 0) return rc::kOk;
  if (errno != EXDEV) return LastError();
  Result r = CopyFile(from, to);
  if (r.ok()) r = RemoveFile(from);
  return r;
}

bool PosixFileSystem::Exists(const std::filesystem::path& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

void PosixFileSystem::SyncDirectory(const std::filesystem::path& dir) { trv::SyncDirectory(dir); }

}  // namespace trv
