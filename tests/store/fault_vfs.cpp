#include "tests/store/fault_vfs.h"

#include <filesystem>
#include <functional>

#include "store/container.h"
#include "tests/support/temp_dir.h"

namespace trv::test {
namespace {

void Apply(std::string& content, sqlite3_int64 offset, const std::string& bytes, bool truncate) {
  const size_t at = static_cast<size_t>(offset);
  if (truncate) {
    content.resize(at, '\0');
    return;
  }
  if (content.size() < at + bytes.size()) content.resize(at + bytes.size(), '\0');
  content.replace(at, bytes.size(), bytes);
}

}  // namespace

// One open file: ours first, the default VFS's own right behind it.
struct FaultVfs::File {
  sqlite3_file base;
  FaultVfs* owner;
  std::string path;  // empty: not tracked
  sqlite3_file* real() { return reinterpret_cast<sqlite3_file*>(this + 1); }

  static File& Of(sqlite3_file* f) { return *reinterpret_cast<File*>(f); }
  static sqlite3_file* Real(sqlite3_file* f) { return Of(f).real(); }

  // The methods that only pass the call on to the default VFS's file.
  template <auto Method>
  struct Forward;
  template <typename R, typename... A, R (*sqlite3_io_methods::*Method)(sqlite3_file*, A...)>
  struct Forward<Method> {
    static R Call(sqlite3_file* f, A... args) { return (Real(f)->pMethods->*Method)(Real(f), args...); }
  };
  template <auto Method>
  static constexpr auto kForward = &Forward<Method>::Call;

  // Records a change to be applied to the synced content at the next sync.
  static int Track(sqlite3_file* f, int refused, Change change, const std::function<int()>& apply) {
    File& file = Of(f);
    if (!file.owner->WriteAllowed()) return refused;
    const int code = apply();
    if (code == SQLITE_OK && !file.path.empty()) {
      std::lock_guard lock(file.owner->mu_);
      file.owner->files_[file.path].pending.push_back(std::move(change));
    }
    return code;
  }
  static int Write(sqlite3_file* f, const void* data, int n, sqlite3_int64 offset) {
    return Track(f, SQLITE_IOERR_WRITE,
                 {false, offset, std::string(static_cast<const char*>(data), static_cast<size_t>(n))},
                 [&] { return Real(f)->pMethods->xWrite(Real(f), data, n, offset); });
  }
  static int Truncate(sqlite3_file* f, sqlite3_int64 size) {
    return Track(f, SQLITE_IOERR_TRUNCATE, {true, size, {}},
                 [&] { return Real(f)->pMethods->xTruncate(Real(f), size); });
  }
  static int Sync(sqlite3_file* f, int flags) {
    File& file = Of(f);
    {
      std::lock_guard lock(file.owner->mu_);
      if (file.owner->frozen_) return SQLITE_IOERR_FSYNC;
    }
    const int code = Real(f)->pMethods->xSync(Real(f), flags);
    if (code == SQLITE_OK && !file.path.empty()) {
      std::lock_guard lock(file.owner->mu_);
      FileState& state = file.owner->files_[file.path];
      for (const Change& c : state.pending) Apply(state.synced, c.offset, c.bytes, c.truncate);
      state.pending.clear();
      state.ever_synced = true;
    }
    return code;
  }
};

// Version 2: shared memory for the write-ahead log, no memory mapping.
using M = sqlite3_io_methods;
const M FaultVfs::kMethods = {
    2, File::kForward<&M::xClose>, File::kForward<&M::xRead>, &File::Write, &File::Truncate, &File::Sync,
    File::kForward<&M::xFileSize>, File::kForward<&M::xLock>, File::kForward<&M::xUnlock>,
    File::kForward<&M::xCheckReservedLock>, File::kForward<&M::xFileControl>, File::kForward<&M::xSectorSize>,
    File::kForward<&M::xDeviceCharacteristics>, File::kForward<&M::xShmMap>, File::kForward<&M::xShmLock>,
    File::kForward<&M::xShmBarrier>, File::kForward<&M::xShmUnmap>, nullptr, nullptr,
};

FaultVfs::FaultVfs() {
  root_ = sqlite3_vfs_find(nullptr);
  vfs_ = *root_;
  vfs_.zName = "trv-fault";
  vfs_.szOsFile = static_cast<int>(sizeof(File)) + root_->szOsFile;
  vfs_.pAppData = this;
  vfs_.xOpen = &FaultVfs::Open;
  vfs_.xDelete = &FaultVfs::Delete;
  vfs_.pNext = nullptr;
  sqlite3_vfs_register(&vfs_, 0);
  SetContainerVfs(vfs_.zName);
}

FaultVfs::~FaultVfs() {
  SetContainerVfs(nullptr);
  sqlite3_vfs_unregister(&vfs_);
}

bool FaultVfs::WriteAllowed() {
  std::lock_guard lock(mu_);
  if (frozen_) return false;
  if (writes_left_ == 0) {
    frozen_ = true;
    return false;
  }
  if (writes_left_ > 0) --writes_left_;
  return true;
}

int FaultVfs::Open(sqlite3_vfs* vfs, const char* name, sqlite3_file* f, int flags, int* out_flags) {
  FaultVfs& self = *static_cast<FaultVfs*>(vfs->pAppData);
  File* file = new (f) File{{nullptr}, &self, {}};
  const int code = self.root_->xOpen(self.root_, name, file->real(), flags, out_flags);
  if (code != SQLITE_OK || !file->real()->pMethods) return code;
  file->base.pMethods = &kMethods;
  if (name && (flags & (SQLITE_OPEN_MAIN_DB | SQLITE_OPEN_WAL))) {
    file->path = name;
    std::lock_guard lock(self.mu_);
    if (!self.files_.count(file->path)) {
      FileState& state = self.files_[file->path];
      state.synced = ReadFile(file->path);
      state.ever_synced = std::filesystem::exists(file->path);
    }
  }
  return code;
}

int FaultVfs::Delete(sqlite3_vfs* vfs, const char* name, int sync_dir) {
  FaultVfs& self = *static_cast<FaultVfs*>(vfs->pAppData);
  {
    std::lock_guard lock(self.mu_);
    if (self.frozen_) return SQLITE_IOERR_DELETE;
    self.files_.erase(name);
  }
  return self.root_->xDelete(self.root_, name, sync_dir);
}

void FaultVfs::FreezeAfter(int writes) {
  std::lock_guard lock(mu_);
  writes_left_ = writes;
  frozen_ = writes == 0;
}

void FaultVfs::PowerLoss(std::mt19937& rng) {
  std::lock_guard lock(mu_);
  for (auto& [path, state] : files_) {
    std::string content = state.synced;
    const size_t keep = state.pending.empty() ? 0 : rng() % (state.pending.size() + 1);
    for (size_t i = 0; i < keep; ++i) {
      Change c = state.pending[i];
      if (i + 1 == keep && !c.truncate && rng() % 3 == 0) c.bytes.resize(c.bytes.size() / 2 / 512 * 512);
      Apply(content, c.offset, c.bytes, c.truncate);
    }
    std::error_code ec;
    if (!state.ever_synced && keep == 0) {
      std::filesystem::remove(path, ec);
    } else {
      WriteFile(path, content);
    }
    // The shared-memory index describes the log as it was; the next opener
    // rebuilds it from the log.
    std::filesystem::remove(path + "-shm", ec);
    state.synced = content;
    state.ever_synced = std::filesystem::exists(path, ec);
    state.pending.clear();
  }
  frozen_ = false;
  writes_left_ = -1;
}

}  // namespace trv::test
