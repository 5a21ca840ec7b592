// File operations that fail or stop on demand, and a storage host over
// temporary directories (the engine tests use them too).
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "base/file_system.h"
#include "store/storage.h"
#include "store/storage_host.h"
#include "tests/support/recording_log.h"
#include "tests/support/temp_dir.h"

namespace trv::test {

// The real file system, except that the changing operations (write, remove,
// rename, copy, move) are counted from 0 and the one numbered `fail_at`
// fails with an I/O error. With `crash`, every change after it fails too
// and does nothing, as if the process had died at that point.
class FaultyFileOps : public PosixFileSystem {
  using Posix = PosixFileSystem;

 public:
  int fail_at = -1;
  bool crash = false;
  int changes = 0;

  using Path = std::filesystem::path;
  Result WriteNewFile(const Path& p, std::string_view b) override { return Fails() ? kFault : Posix::WriteNewFile(p, b); }
  Result RemoveFile(const Path& p) override { return Fails() ? kFault : Posix::RemoveFile(p); }
  Result Rename(const Path& a, const Path& b) override { return Fails() ? kFault : Posix::Rename(a, b); }
  Result CopyFile(const Path& a, const Path& b) override { return Fails() ? kFault : Posix::CopyFile(a, b); }
  Result MoveFile(const Path& a, const Path& b) override { return Fails() ? kFault : Posix::MoveFile(a, b); }

  static constexpr Result kFault{0x8007045D};  // the I/O error of EIO

 private:
  bool Fails() {
    const int n = changes++;
    return n == fail_at || (crash && fail_at >= 0 && n > fail_at);
  }
};

// A storage host over a temporary data directory and home directory, with
// a log that keeps its lines and a progress callback that answers from a
// script (0 once the script is used up) and keeps the events.
class TestHost : public StorageHost {
 public:
  TestHost() {
    std::filesystem::create_directories(data_dir());
    std::filesystem::create_directories(home());
  }

  std::filesystem::path data_dir() const { return dir_ / "data/"; }
  std::filesystem::path home() const { return dir_ / "home/"; }
  const std::filesystem::path& root() const { return dir_.path(); }

  LogSink& StorageLog() override { return log; }
  std::filesystem::path DataDirectory() override { return data_dir(); }
  std::filesystem::path HomeDirectory() override { return home(); }
  std::vector<std::filesystem::path> RemovableMediaRoots() override { return media; }
  int StorageProgress(const StorageEvent& event) override {
    events.push_back(event);
    if (on_event) on_event(event);
    if (answers.empty()) return kAnswerDefault;
    const int answer = answers.front();
    answers.erase(answers.begin());
    return answer;
  }
  void FolderTreeChanged(Storage&, const FolderTreeChange& change) override { changes.push_back(change.kind); }
  FileSystem& FileOps() override { return ops; }
  // Speed; durability is the folder file's own tests' business.
  FolderFileOptions FolderFileSettings() override { return {.sync_commits = false}; }

  RecordingLog log;
  std::vector<std::filesystem::path> media;
  std::vector<int> answers;
  std::vector<StorageEvent> events;
  std::function<void(const StorageEvent&)> on_event;
  std::vector<FolderTreeChange::Kind> changes;
  FaultyFileOps ops;

 private:
  TempDir dir_;
};

// The names of the folders below the root, in pre-order, each indented by
// two spaces per level below the first.
inline std::vector<std::string> TreeNames(const Storage& storage) {
  std::vector<std::string> names;
  storage.ForEachFolder([&](MailFolder& f) { names.push_back(std::string(2 * (f.depth() - 1), ' ') + WideToUtf8(f.name())); });
  return names;
}

}  // namespace trv::test
