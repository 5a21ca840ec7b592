// The file-system seam: the file operations the storages, the settings file
// and the activity log make, behind an interface so that tests can fail any
// one of them or stop all of them from a chosen point on, the way a crash
// would, and then check what a fresh open makes of the files left behind.
// FileSystemWrapper passes every call on, so a test overrides only the
// operations it wants to fail.
//
// Every operation reports the system error of a failure (through
// ResultFromErrno). Files are created 0600, directories 0700.
// Threads: PosixFileSystem may be used from any thread; a wrapper is as
// thread-safe as what it adds.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string_view>

#include "base/result.h"

namespace trv {

// The modes of everything the program creates in the data directory: mail,
// indexes, the log and the settings are private to their owner whatever the
// umask. Every creation of a file or directory there uses these.
inline constexpr unsigned kPrivateFileMode = 0600;
inline constexpr unsigned kPrivateDirectoryMode = 0700;

// Takes away the group's and others' access to an existing directory;
// `*tightened` says whether its mode had to change.
Result TightenDirectoryMode(const std::filesystem::path& dir, bool* tightened);

// A file open for writing at its end (the activity log). Not thread-safe:
// its owner serialises the calls.
class AppendFile {
 public:
  virtual ~AppendFile() = default;
  // Writes every byte at the end of the file.
  virtual Result Append(std::string_view bytes) = 0;
};

enum class AppendOpen {
  kKeep,      // an existing file keeps its content
  kTruncate,  // an existing file is emptied
};

class FileSystem {
 public:
  virtual ~FileSystem() = default;

  // Creates `path` anew (truncating), writes `bytes` and flushes them to the
  // disk before closing.
  virtual Result WriteNewFile(const std::filesystem::path& path, std::string_view bytes) = 0;
  virtual Result ReadFile(const std::filesystem::path& path, std::string* bytes) = 0;
  // The size of a regular file; anything else is the code of EISDIR.
  virtual Result FileSize(const std::filesystem::path& path, uint64_t* size) = 0;
  // Opens (creating when missing) `path` for appending.
  virtual Result OpenForAppend(const std::filesystem::path& path, AppendOpen how,
                               std::unique_ptr<AppendFile>* file) = 0;
  // Removing a missing file is not an error.
  virtual Result RemoveFile(const std::filesystem::path& path) = 0;
  virtual Result Rename(const std::filesystem::path& from, const std::filesystem::path& to) = 0;
  // Copies `from` over `to` durably (base/durable_write.h), so `to` is
  // either untouched or complete.
  virtual Result CopyFile(const std::filesystem::path& from, const std::filesystem::path& to) = 0;
  // Renames, or across file systems copies and then removes the source.
  virtual Result MoveFile(const std::filesystem::path& from, const std::filesystem::path& to) = 0;
  // Creates the directory and its missing parents; an existing directory is
  // not an error, anything else in the way is.
  virtual Result CreateDirectories(const std::filesystem::path& dir) = 0;
  virtual bool Exists(const std::filesystem::path& path) = 0;
  // Flushes a directory so that renames and creations in it survive a crash.
  virtual void SyncDirectory(const std::filesystem::path& dir) = 0;
};

// The real file system.
class PosixFileSystem : public FileSystem {
 public:
  Result WriteNewFile(const std::filesystem::path& path, std::string_view bytes) override;
  Result ReadFile(const std::filesystem::path& path, std::string* bytes) override;
  Result FileSize(const std::filesystem::path& path, uint64_t* size) override;
  Result OpenForAppend(const std::filesystem::path& path, AppendOpen how,
                       std::unique_ptr<AppendFile>* file) override;
  Result RemoveFile(const std::filesystem::path& path) override;
  Result Rename(const std::filesystem::path& from, const std::filesystem::path& to) override;
  Result CopyFile(const std::filesystem::path& from, const std::filesystem::path& to) override;
  Result MoveFile(const std::filesystem::path& from, const std::filesystem::path& to) override;
  Result CreateDirectories(const std::filesystem::path& dir) override;
  bool Exists(const std::filesystem::path& path) override;
  void SyncDirectory(const std::filesystem::path& dir) override;

  // The process-wide instance.
  static PosixFileSystem& Instance();
};

// Passes every call to `target` (which must outlive the wrapper).
class FileSystemWrapper : public FileSystem {
 public:
  explicit FileSystemWrapper(FileSystem& target) : target_(target) {}

  Result WriteNewFile(const std::filesystem::path& path, std::string_view bytes) override {
    return target_.WriteNewFile(path, bytes);
  }
  Result ReadFile(const std::filesystem::path& path, std::string* bytes) override {
    return target_.ReadFile(path, bytes);
  }
  Result FileSize(const std::filesystem::path& path, uint64_t* size) override { return target_.FileSize(path, size); }
  Result OpenForAppend(const std::filesystem::path& path, AppendOpen how,
                       std::unique_ptr<AppendFile>* file) override {
    return target_.OpenForAppend(path, how, file);
  }
  Result RemoveFile(const std::filesystem::path& path) override { return target_.RemoveFile(path); }
  Result Rename(const std::filesystem::path& from, const std::filesystem::path& to) override {
    return target_.Rename(from, to);
  }
  Result CopyFile(const std::filesystem::path& from, const std::filesystem::path& to) override {
    return target_.CopyFile(from, to);
  }
  Result MoveFile(const std::filesystem::path& from, const std::filesystem::path& to) override {
    return target_.MoveFile(from, to);
  }
  Result CreateDirectories(const std::filesystem::path& dir) override { return target_.CreateDirectories(dir); }
  bool Exists(const std::filesystem::path& path) override { return target_.Exists(path); }
  void SyncDirectory(const std::filesystem::path& dir) override { target_.SyncDirectory(dir); }

 private:
  FileSystem& target_;
};

}  // namespace trv
