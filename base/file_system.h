// The file-system seam: the whole-file operations the storages, the settings
// file and the activity log make, behind an interface so that tests can fail
// any one of them or stop all of them from a chosen point on, the way a crash
// would, and then check what a fresh open makes of the files left behind.
//
// Every operation reports the system error of a failure (from errno).
#pragma once

#include <filesystem>
#include <string_view>

#include "base/result.h"

namespace trv {

class FileSystem {
 public:
  virtual ~FileSystem() = default;

  // Creates `path` anew (truncating), writes `bytes` and flushes them to the
  // disk before closing.
  virtual Result WriteNewFile(const std::filesystem::path& path, std::string_view bytes) = 0;
  virtual Result ReadFile(const std::filesystem::path& path, std::string* bytes) = 0;
  // Removing a missing file is not an error.
  virtual Result RemoveFile(const std::filesystem::path& path) = 0;
  virtual Result Rename(const std::filesystem::path& from, const std::filesystem::path& to) = 0;
  // Copies `from` over `to` through a flushed temporary file and a rename,
  // so `to` is either untouched or complete.
  virtual Result CopyFile(const std::filesystem::path& from, const std::filesystem::path& to) = 0;
  // Renames, or across file systems copies and then removes the source.
  virtual Result MoveFile(const std::filesystem::path& from, const std::filesystem::path& to) = 0;
  virtual bool Exists(const std::filesystem::path& path) = 0;
  // Flushes a directory so that renames and creations in it survive a crash.
  virtual void SyncDirectory(const std::filesystem::path& dir) = 0;
};

// The real file system.
class PosixFileSystem : public FileSystem {
 public:
  Result WriteNewFile(const std::filesystem::path& path, std::string_view bytes) override;
  Result ReadFile(const std::filesystem::path& path, std::string* bytes) override;
  Result RemoveFile(const std::filesystem::path& path) override;
  Result Rename(const std::filesystem::path& from, const std::filesystem::path& to) override;
  Result CopyFile(const std::filesystem::path& from, const std::filesystem::path& to) override;
  Result MoveFile(const std::filesystem::path& from, const std::filesystem::path& to) override;
  bool Exists(const std::filesystem::path& path) override;
  void SyncDirectory(const std::filesystem::path& dir) override;

  // The process-wide instance.
  static PosixFileSystem& Instance();
};

}  // namespace trv
