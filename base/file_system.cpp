#include "base/file_system.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "base/durable_write.h"
#include "base/file_io.h"

namespace trv {

namespace {

Result LastError() { return ResultFromErrno(errno); }

class PosixAppendFile final : public AppendFile {
 public:
  explicit PosixAppendFile(int fd) : fd_(fd) {}
  ~PosixAppendFile() override { ::close(fd_); }
  Result Append(std::string_view bytes) override { return WriteAllBytes(fd_, bytes); }

 private:
  const int fd_;
};

}  // namespace

Result TightenDirectoryMode(const std::filesystem::path& dir, bool* tightened) {
  *tightened = false;
  struct stat st;
  if (::stat(dir.c_str(), &st) != 0) return LastError();
  if ((st.st_mode & 077) == 0) return rc::kOk;
  if (::chmod(dir.c_str(), (st.st_mode & 07777 & ~077u) | kPrivateDirectoryMode) != 0) return LastError();
  *tightened = true;
  return rc::kOk;
}

PosixFileSystem& PosixFileSystem::Instance() {
  static PosixFileSystem ops;
  return ops;
}

Result PosixFileSystem::WriteNewFile(const std::filesystem::path& path, std::string_view bytes) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, kPrivateFileMode);
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

Result PosixFileSystem::FileSize(const std::filesystem::path& path, uint64_t* size) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return LastError();
  if (!S_ISREG(st.st_mode)) return ResultFromErrno(EISDIR);
  *size = static_cast<uint64_t>(st.st_size);
  return rc::kOk;
}

Result PosixFileSystem::OpenForAppend(const std::filesystem::path& path, AppendOpen how,
                                      std::unique_ptr<AppendFile>* file) {
  const int flags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | (how == AppendOpen::kTruncate ? O_TRUNC : 0);
  const int fd = ::open(path.c_str(), flags, kPrivateFileMode);
  if (fd < 0) return LastError();
  *file = std::make_unique<PosixAppendFile>(fd);
  return rc::kOk;
}

Result PosixFileSystem::CopyFile(const std::filesystem::path& from, const std::filesystem::path& to) {
  std::string bytes;
  Result r = ReadFile(from, &bytes);
  if (r.failed()) return r;
  DurableWriteOptions options;
  options.temp_path = to;
  options.temp_path += ".copy";
  return WriteFileDurably(*this, to, bytes, options);
}

Result PosixFileSystem::MoveFile(const std::filesystem::path& from, const std::filesystem::path& to) {
  if (::rename(from.c_str(), to.c_str()) == 0) return rc::kOk;
  if (errno != EXDEV) return LastError();
  Result r = CopyFile(from, to);
  if (r.ok()) r = RemoveFile(from);
  return r;
}

Result PosixFileSystem::CreateDirectories(const std::filesystem::path& dir) {
  if (dir.empty()) return rc::kOk;
  struct stat st;
  if (::stat(dir.c_str(), &st) == 0) return S_ISDIR(st.st_mode) ? rc::kOk : ResultFromErrno(ENOTDIR);
  if (errno != ENOENT) return LastError();
  const std::filesystem::path parent = dir.parent_path();
  if (parent != dir && !parent.empty()) {
    if (Result r = CreateDirectories(parent); r.failed()) return r;
  }
  if (::mkdir(dir.c_str(), kPrivateDirectoryMode) != 0 && errno != EEXIST) return LastError();
  return rc::kOk;
}

bool PosixFileSystem::Exists(const std::filesystem::path& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

void PosixFileSystem::SyncDirectory(const std::filesystem::path& dir) { trv::SyncDirectory(dir); }

}  // namespace trv
