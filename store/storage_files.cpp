#include "store/storage_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace trv {

namespace {

Result LastError() { return ResultFromErrno(errno); }

Result WriteAll(int fd, std::string_view bytes) {
  const char* p = bytes.data();
  size_t n = bytes.size();
  while (n > 0) {
    const ssize_t w = ::write(fd, p, n);
    if (w < 0) {
      if (errno == EINTR) continue;
      return LastError();
    }
    p += w;
    n -= static_cast<size_t>(w);
  }
  return rc::kOk;
}

}  // namespace

PosixStorageFileOps& PosixStorageFileOps::Instance() {
  static PosixStorageFileOps ops;
  return ops;
}

Result PosixStorageFileOps::WriteNewFile(const std::filesystem::path& path, std::string_view bytes) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return LastError();
  Result r = WriteAll(fd, bytes);
  if (r.ok() && ::fsync(fd) != 0) r = LastError();
  if (::close(fd) != 0 && r.ok()) r = LastError();
  return r;
}

Result PosixStorageFileOps::ReadFile(const std::filesystem::path& path, std::string* bytes) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return LastError();
  std::string data;
  Result r = rc::kOk;
  struct stat st;
  if (::fstat(fd, &st) != 0) {
    r = LastError();
  } else if (!S_ISREG(st.st_mode)) {
    r = ResultFromErrno(EISDIR);
  } else {
    data.reserve(static_cast<size_t>(st.st_size));
    char buf[65536];
    for (;;) {
      const ssize_t n = ::read(fd, buf, sizeof buf);
      if (n < 0) {
        if (errno == EINTR) continue;
        r = LastError();
        break;
      }
      if (n == 0) break;
      data.append(buf, static_cast<size_t>(n));
    }
  }
  ::close(fd);
  if (r.ok()) *bytes = std::move(data);
  return r;
}

Result PosixStorageFileOps::RemoveFile(const std::filesystem::path& path) {
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) return LastError();
  return rc::kOk;
}

Result PosixStorageFileOps::Rename(const std::filesystem::path& from, const std::filesystem::path& to) {
  if (::rename(from.c_str(), to.c_str()) != 0) return LastError();
  return rc::kOk;
}

Result PosixStorageFileOps::CopyFile(const std::filesystem::path& from, const std::filesystem::path& to) {
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

Result PosixStorageFileOps::MoveFile(const std::filesystem::path& from, const std::filesystem::path& to) {
  if (::rename(from.c_str(), to.c_str()) == 0) return rc::kOk;
  if (errno != EXDEV) return LastError();
  Result r = CopyFile(from, to);
  if (r.ok()) r = RemoveFile(from);
  return r;
}

bool PosixStorageFileOps::Exists(const std::filesystem::path& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

void PosixStorageFileOps::SyncDirectory(const std::filesystem::path& dir) {
  const int fd = ::open(dir.empty() ? "." : dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

}  // namespace trv
