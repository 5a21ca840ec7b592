// An SQLite VFS over the default one that keeps, for every database and log
// file it opens, the content the file had at its last sync and the writes
// made since. A test can then pull the plug: stop all writing, close the
// files, and give each file its synced content plus a random prefix of the
// later writes, the last of them possibly torn, as a power loss might.
#pragma once

#include <sqlite3.h>

#include <map>
#include <mutex>
#include <random>
#include <string>
#include <vector>

namespace trv::test {

class FaultVfs {
 public:
  // Registers the VFS and makes new containers use it.
  FaultVfs();
  // Makes new containers use the default VFS again and unregisters.
  ~FaultVfs();
  FaultVfs(const FaultVfs&) = delete;
  FaultVfs& operator=(const FaultVfs&) = delete;

  // After `writes` more writes every write, sync, truncate and delete fails
  // and changes nothing (0: at once).
  void FreezeAfter(int writes);
  // With every connection closed: each file gets its synced content and the
  // first of its later changes, a random number of them, the last cut short
  // at a 512-byte boundary now and then. A file never synced and given none
  // of its changes is removed. Then writing works again.
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
  static FaultVfs& Self(sqlite3_vfs* vfs) { return *static_cast<FaultVfs*>(vfs->pAppData); }
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
