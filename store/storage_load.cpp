// Opening a storage: reading its index file, building the tree and finding,
// opening or recreating every folder's file, with the log lines of a load.
#include <algorithm>

#include "store/storage.h"
#include "base/file_system.h"

namespace trv {

namespace {

constexpr const char* kLogLoadingStorage = "Loading storage: ";
constexpr const char* kLogStorageName = "Storage name: ";
constexpr const char* kLogStorageError = "Storage loading error: ";
constexpr const char* kLogStorageLoaded = "Storage loaded";
constexpr const char* kLogLoadingFolder = "Loading folder";
constexpr const char* kLogFolderName = "Folder name: ";
constexpr const char* kLogFileFound = "Folder file found: ";
constexpr const char* kLogFileNotFound = "Folder file not found";
constexpr const char* kLogRecreating = "Recreating folder file";
constexpr const char* kLogRecreated = "Folder file recreated: ";
constexpr const char* kLogFolderLoaded = "Folder loaded";
constexpr const char* kLogFolderError = "Folder loading error: ";

std::string Utf8(WStringView s) { return WideToUtf8(s); }

// A folder file name as the index keeps it, as a path to put after a
// candidate directory. Names written on the handheld use "\" and start at
// the device root ("\Storage Card\x.fld"); they become relative paths with
// "/". Other names are taken as they are, so an absolute one stands alone.
std::filesystem::path StoredNamePath(WStringView stored) {
  if (stored.find(u'\\') == WStringView::npos) return WideToPath(stored);
  WString name(stored);
  std::replace(name.begin(), name.end(), u'\\', u'/');
  const size_t start = name.find_first_not_of(u'/');
  return WideToPath(start == WString::npos ? WString() : name.substr(start));
}

std::string DamageText(const std::filesystem::path& path, const IndexDamage& damage) {
  return path.string() + ": " + damage.what + " at offset " + std::to_string(damage.offset);
}

}  // namespace

struct Storage::LoadState {
  bool stopped = false;     // the user asked to stop loading the tree
  bool incomplete = false;  // a folder stayed unavailable
};

int Storage::RaiseEvent(int code, Result error, WStringView folder_name, const std::filesystem::path& path) {
  StorageEvent event;
  event.code = code;
  event.error = error;
  event.storage_name = name_;
  event.folder_name = WString(folder_name);
  event.path = path;
  event.detail = index_problem_;
  return host_.StorageProgress(event);
}

Result Storage::FailOpen(Result r, const std::filesystem::path& path, const std::string& problem) {
  root_.reset();
  complete_ = false;
  index_problem_ = problem;
  LogSink& log = host_.StorageLog();
  log.Log("Cannot open storage index " + problem);
  log.Log(kLogStorageError + ResultText(r));
  RaiseEvent(kEventStorageLoadingError, r, {}, path);
  return r;
}

Result Storage::Open(const std::filesystem::path& index_path) {
  Close();
  LogSink& log = host_.StorageLog();
  FileSystem& ops = host_.FileOps();
  log.Log(kLogLoadingStorage + index_path.string());
  index_problem_.clear();
  index_damaged_ = false;

  RestoreIndexFromBackup(index_path, ops, log).Ignore();  // a failure shows as a missing index below
  std::string bytes;
  Result r = ops.ReadFile(index_path, &bytes);
  if (r.failed()) return FailOpen(r, index_path, index_path.string() + ": " + ResultText(r));

  StorageIndex index;
  std::optional<IndexDamage> damage;
  r = ParseStorageIndex(bytes, &index, &damage);
  bool record_damage = damage.has_value();
  if (damage) {
    index_damaged_ = true;
    index_problem_ = DamageText(index_path, *damage);
    // A whole backup is one change older than the damaged index but loses
    // no folder; the damaged file stays as it is until the next save.
    const std::filesystem::path backup = IndexBackupPath(index_path);
    StorageIndex from_backup;
    std::optional<IndexDamage> backup_damage;
    std::string backup_bytes;
    if (ops.ReadFile(backup, &backup_bytes).ok() &&
        ParseStorageIndex(backup_bytes, &from_backup, &backup_damage).ok() && !backup_damage) {
      log.Log("Storage index " + index_problem_ + "; loading its backup " + backup.string());
      index = std::move(from_backup);
      r = rc::kOk;
      record_damage = false;
    } else if (r.failed()) {
      return FailOpen(r, index_path, index_problem_);
    } else {
      log.Log("Storage index " + index_problem_ + "; loading the folders before the damage");
    }
  }

  id_ = index.id;
  name_ = index.name;
  local_ = index.local;
  log.Log(kLogStorageName + Utf8(name_));
  root_ = std::make_unique<MailFolder>(*this, nullptr, kFolderRoot, name_, WString());
  root_->view_ = index.view;

  LoadState state;
  LoadChildren(*root_, index.children, state);
  if (record_damage) {
    // The record that could not be read is reported like a folder that
    // failed to load.
    log.Log(kLogLoadingFolder);
    ReportFolderError(WString(), rc::kInvalidData, state);
    state.incomplete = true;
  }
  index_path_ = index_path;
  root_path_ = PathToWide(index_path);
  complete_ = !state.incomplete;

  for (StorageService* service : services()) service->OnStorageOpened(*this).Ignore();
  log.Log(kLogStorageLoaded);
  return rc::kOk;
}

void Storage::LoadChildren(MailFolder& parent, std::vector<FolderRecord>& records, LoadState& state) {
  for (FolderRecord& record : records) {
    auto folder = std::make_unique<MailFolder>(*this, &parent, record.kind, std::move(record.name),
                                               std::move(record.file_name));
    MailFolder& added = *folder;
    parent.children_.push_back(std::move(folder));
    if (state.stopped) {
      state.incomplete = true;  // kept in the tree unopened, written back as it was
    } else {
      LoadFolder(added, state);
    }
    LoadChildren(added, record.children, state);
  }
}

void Storage::LoadFolder(MailFolder& folder, LoadState& state) {
  LogSink& log = host_.StorageLog();
  log.Log(kLogLoadingFolder);
  log.Log(kLogFolderName + Utf8(folder.name_));
  const Result r = OpenFolderFile(folder);
  if (r.failed()) {
    state.incomplete = true;
    ReportFolderError(folder.name_, r, state);
  } else {
    log.Log(kLogFolderLoaded);
  }
}

void Storage::ReportFolderError(const WString& folder_name, Result r, LoadState& state) {
  host_.StorageLog().Log(kLogFolderError + ResultText(r));
  if (RaiseEvent(kEventFolderLoadingError, r, folder_name, index_path_) == kAnswerStop) state.stopped = true;
}

Result Storage::FindFolderFile(MailFolder& folder, std::filesystem::path* found) {
  FileSystem& ops = host_.FileOps();
  const std::filesystem::path name = StoredNamePath(folder.file_name_);
  for (;;) {
    std::vector<std::filesystem::path> dirs = {host_.HomeDirectory(), WithTrailingSlash(host_.DataDirectory())};
    if (folder.found_dir_.empty()) {
      for (const std::filesystem::path& root : host_.RemovableMediaRoots()) dirs.push_back(WithTrailingSlash(root));
    } else {
      dirs.push_back(folder.found_dir_);
    }
    for (const std::filesystem::path& dir : dirs) {
      if (dir.empty() || name.empty()) continue;
      const std::filesystem::path candidate = dir / name;
      if (ops.Exists(candidate)) {
        *found = candidate;
        return rc::kOk;
      }
    }
    const int answer = RaiseEvent(kEventFolderFileNotFound, rc::kFileMissing, folder.name_, name);
    if (answer == kAnswerSearchAgain) continue;
    return answer == kAnswerSkip ? rc::kAbort : rc::kFileMissing;
  }
}

Result Storage::OpenFolderFile(MailFolder& folder) {
  LogSink& log = host_.StorageLog();
  std::filesystem::path path;
  Result r = FindFolderFile(folder, &path);
  if (r.failed()) {
    log.Log(kLogFileNotFound);
    if (r == rc::kAbort) return rc::kFileNotFound;  // the user skipped the folder
    log.Log(kLogRecreating);
    return RecreateFolderFile(folder);
  }
  log.Log(kLogFileFound + path.string());
  std::unique_ptr<FolderFile> file = NewFolderFileObject();
  r = file->Open(path);
  if (r.failed()) return r;
  SetFolderFile(folder, path, std::move(file));
  return rc::kOk;
}

Result Storage::RecreateMissingFolderFile(MailFolder* folder) {
  MutexLock lock(tree_mu_);
  Result r = CheckOwnFolder(folder);
  if (r.ok() && (folder->is_root() || folder->available())) r = rc::kInvalidArg;
  if (r.failed()) return r;
  host_.StorageLog().Log(kLogRecreating);
  const WString name_before = folder->file_name_;
  r = RecreateFolderFile(*folder);
  // Made under the last part of its name only: the index says so.
  if (r.ok() && folder->file_name_ != name_before) r = SaveIndexLocked();
  return r;
}

Result Storage::RecreateFolderFile(MailFolder& folder) {
  const std::filesystem::path name = StoredNamePath(folder.file_name_);
  const std::filesystem::path data_dir = WithTrailingSlash(host_.DataDirectory());
  const std::filesystem::path last_part = name.filename();
  const std::filesystem::path targets[] = {data_dir / name, host_.HomeDirectory() / name, data_dir / last_part};
  Result r = rc::kFileMissing;
  for (const std::filesystem::path& target : targets) {
    if (name.empty() || last_part.empty() || target.is_relative()) continue;
    std::unique_ptr<FolderFile> file = NewFolderFileObject();
    r = file->Create(target);
    if (r.failed()) continue;
    host_.StorageLog().Log(kLogRecreated + target.string());
    // Found under the last part of its name only: the index will say so at
    // its next save.
    if (target == data_dir / last_part && target != data_dir / name) folder.file_name_ = PathToWide(last_part);
    SetFolderFile(folder, target, std::move(file));
    return rc::kOk;
  }
  return r;
}

}  // namespace trv
