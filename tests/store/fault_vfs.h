// An SQLite VFS over the default one that keeps, for every database and log
// file, the content it had at its last sync and the writes since, so that a
// test can pull the plug as a power loss would.
#pragma once

#include <sqlite3.h>

#include <map>
#include <mutex>
#include <random>
#include <string>
#include <vector>

namespace trv::test {

// Registered and used by new containers for its lifetime.
class FaultVfs {
 public:
  FaultVfs();
  ~FaultVfs();
  FaultVfs(const FaultVfs&) = delete;
  FaultVfs& operator=(const FaultVfs&) = delete;

  // After `writes` more writes every write, sync, truncate and delete fails
  // and changes nothing (0: at once).
  void FreezeAfter(int writes);
  // With every connection closed: each file gets its synced content and a
  // random number of its first later changes, the last cut short at a
  // 512-byte boundary now and then; a file never synced and given none of
  // them is removed. Then writing works again.
  void PowerLoss(std::mt19937& rng);

 private:
  struct Change {
    bool truncate;
    sqlite3_int64 offset;  // or the new size
    std::string bytes;
  };
  struct FileState {
    std::string synced;
    bool ever_synced = false;
    std::vector<Change> pending;
  };
  struct File;

  static int Open(sqlite3_vfs* vfs, const char* name, sqlite3_file* file, int flags, int* out_flags);
  static int Delete(sqlite3_vfs* vfs, const char* name, int sync_dir);
  static const sqlite3_io_methods kMethods;
  bool WriteAllowed();

  sqlite3_vfs vfs_{};
  sqlite3_vfs* root_ = nullptr;
  std::mutex mu_;
  std::map<std::string, FileState> files_;
  int writes_left_ = -1;  // negative: no limit
  bool frozen_ = false;
};

}  // namespace trv::test
