// A storage: one named tree of mail folders, described by its storage index
// file (store/storage_index_file.h) and keeping each folder's messages in a
// folder file of its own (store/folder_file.h). "Local Folders" is the local
// storage (all-zero identifier); every mail service owns one more, named
// after it.
//
// Life: created empty -> Create (a new storage with its five special
// folders) or Open (an existing index file) -> Close (also by the
// destructor). Every change of the tree (create, attach, rename, delete,
// move of a folder) ends with SaveIndex, and a change whose save fails is
// undone in memory, so the tree in memory and the one on disk agree.
//
// Folder names are unique among siblings without regard to ASCII letter
// case; a duplicate is refused with rc::kFileExists (80), the store's one
// code for "already exists" (a file-system call that finds a file in the
// way reports the system's own ResultFromErrno(EEXIST) instead). A name must
// not be empty, longer than kMaxFolderName units, or hold "/" (the separator
// of folder paths) or control characters: rc::kInvalidArg. Names read from
// an index file are taken as they are.
//
// A damaged index is never written over while it is only read: opening uses
// its backup when the backup is whole, else the folders before the damage,
// and logs which. The first save after that moves the damaged file aside to
// "{GUID}.damaged" rather than over the backup.
//
// Threads: Create, Open, Close and SaveIndex's callers outside the tree
// changes belong to the interface thread, which opens a storage before its
// services run and closes it after they stopped. The tree changes (create,
// attach, rename, delete, move of a folder) may come from any thread: an
// IMAP4 run makes local folders from its worker while the interface shows
// the tree. Each takes the storage's tree mutex for the change and its
// SaveIndex, and tells FolderTreeChanged after releasing it, on the thread
// that made the change (the interface queues news from other threads). The
// walks and lookups (FindFolder, SpecialFolder, ForEachFolder,
// FindFolderByPath) take the mutex too; a ForEachFolder visitor runs with it
// held and must not call the storage's tree methods. Code that reads a
// folder's children, name or parent itself, while a worker may change the
// tree, holds MutexLock(storage.tree_mutex()) meanwhile. MailFolder
// pointers stay valid until that folder is deleted, and only the interface
// deletes or moves folders (after stopping the storage's services). The
// services list has a lock of its own (any thread).
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/guid.h"
#include "base/result.h"
#include "base/thread_annotations.h"
#include "base/wide_string.h"
#include "store/mail_folder.h"
#include "store/storage_host.h"
#include "store/storage_index_file.h"

namespace trv {

class Storage {
 public:
  static constexpr std::string_view kType = "MIME";
  static constexpr size_t kMaxFolderName = 255;

  explicit Storage(StorageHost& host);
  ~Storage();
  Storage(const Storage&) = delete;
  Storage& operator=(const Storage&) = delete;

  // Every storage is of type "MIME"; the engine opens and searches only those.
  std::string_view type() const { return kType; }
  const Guid& id() const { return id_; }
  // The engine names a storage found by its index file before opening it.
  void set_id(const Guid& id) { id_ = id; }
  const std::filesystem::path& index_path() const { return index_path_; }
  const WString& name() const { return name_; }
  bool local() const { return local_; }
  bool is_open() const { return root_ != nullptr; }
  // Every folder of the tree was loaded (none is unavailable).
  bool complete() const { return complete_; }
  MailFolder* root() const { return root_.get(); }
  // What was wrong with the index file at the last Open, for messages;
  // empty when nothing was.
  const std::string& index_problem() const { return index_problem_; }

  // Makes a new storage: index file "{GUID}.idx" in `dir` (the data
  // directory when empty; created with its parents, else error 2), the
  // all-zero GUID when `local`, a fresh one otherwise; the root named `name`
  // and "Inbox", "Outbox", "Sent", "Deleted", "Drafts" in that order, each
  // with a new folder file in the data directory. An existing index (or
  // backup) of that name is never overwritten: rc::kFileExists (80). On any
  // error everything made so far is removed again.
  Result Create(WStringView name, const std::filesystem::path& dir, bool local);

  // Reads the index file and opens every folder's file (finding, or with
  // the user's consent recreating, missing ones), with the log lines of a
  // storage load. Restores the index from its backup first when the index is
  // missing. The index cannot be read, or its header is damaged and there is
  // no whole backup: the system error or rc::kInvalidData, "Storage loading
  // error: " logged and event 9 raised. Damage among the folder records is
  // not a failure (see above); complete() tells whether every folder loaded.
  Result Open(const std::filesystem::path& index_path);

  // Closes every folder file and drops the tree.
  void Close();

  // Writes the tree to the index file by the replace protocol.
  Result SaveIndex() EXCLUDES(tree_mu_);

  // Called by the engine between interface events. Storages keep no
  // background work yet, so this does nothing.
  void Idle() {}

  // Tree changes, each ending with SaveIndex. The folder arguments must be
  // folders of this storage (rc::kInvalidArg otherwise).
  //
  // A new user folder (kind 0) with a new folder file.
  Result CreateFolder(MailFolder* parent, WStringView name, MailFolder** created) EXCLUDES(tree_mu_);
  // A folder for an existing folder file; refused with rc::kInvalidArg when
  // the file is already in the tree. The index keeps the file's name alone
  // when it lies in the data directory, its path below the home directory
  // when it lies there, else its absolute path.
  Result AttachFolderFile(MailFolder* parent, const std::filesystem::path& file, WStringView name,
                          MailFolder** attached) EXCLUDES(tree_mu_);
  // The root cannot be renamed (rc::kInvalidArg).
  Result RenameFolder(MailFolder* folder, WStringView name) EXCLUDES(tree_mu_);
  // Deletes the folder with its subtree. The root and the special folders
  // (kinds 1 to 5, also inside the subtree) cannot be deleted:
  // rc::kInvalidArg. The folder files are removed from disk after the index
  // is saved, so a crash in between leaves them in place, still named by
  // the old index or its backup.
  Result DeleteFolder(MailFolder* folder) EXCLUDES(tree_mu_);
  // Gives a folder whose file was not found at the load a new empty file, as
  // the load does when the host answers kEventFolderFileNotFound with
  // kAnswerDefault. kInvalidArg for the root, a folder of another storage or
  // a folder whose file is open.
  Result RecreateMissingFolderFile(MailFolder* folder) EXCLUDES(tree_mu_);
  // Moves a user folder with its subtree under another parent (not into
  // its own subtree). The root and special folders stay where they are.
  Result MoveFolder(MailFolder* folder, MailFolder* new_parent) EXCLUDES(tree_mu_);

  // "A/B" below the root ("" is the root); names compared without regard to
  // ASCII letter case. Null when there is no such folder.
  MailFolder* FindFolder(WStringView path) const EXCLUDES(tree_mu_);
  // The first folder of that kind in pre-order; null when there is none.
  MailFolder* SpecialFolder(uint32_t kind) const EXCLUDES(tree_mu_);
  // Calls `visit` for every folder below the root, in pre-order.
  void ForEachFolder(const std::function<void(MailFolder&)>& visit) const EXCLUDES(tree_mu_);

  // Held by every tree change and walk; see Threads above.
  Mutex& tree_mutex() const { return tree_mu_; }

  // The services that keep their mail here. Any thread.
  Result AddService(StorageService* service) EXCLUDES(services_mu_);
  void RemoveService(StorageService* service) EXCLUDES(services_mu_);
  std::vector<StorageService*> services() const EXCLUDES(services_mu_);

  // Checks a name for a new or renamed folder (not its uniqueness).
  static Result CheckFolderName(WStringView name);

 private:
  struct LoadState;

  // storage_load.cpp
  Result FailOpen(Result r, const std::filesystem::path& path, const std::string& problem);
  void LoadChildren(MailFolder& parent, std::vector<FolderRecord>& records, LoadState& state);
  void LoadFolder(MailFolder& folder, LoadState& state);
  Result OpenFolderFile(MailFolder& folder);
  Result FindFolderFile(MailFolder& folder, std::filesystem::path* found);
  Result RecreateFolderFile(MailFolder& folder);
  void ReportFolderError(const WString& folder_name, Result r, LoadState& state);
  // Calls the engine's progress callback; the answer.
  int RaiseEvent(int code, Result error, WStringView folder_name, const std::filesystem::path& path);

  // storage.cpp
  std::unique_ptr<FolderFile> NewFolderFileObject();
  Result MakeFolderFile(MailFolder& folder);
  Result SaveIndexLocked() REQUIRES(tree_mu_);
  // storage_tree.cpp: the tree changes under the tree mutex.
  Result CreateFolderLocked(MailFolder* parent, WStringView name, MailFolder** created) REQUIRES(tree_mu_);
  Result AttachFolderFileLocked(MailFolder* parent, const std::filesystem::path& file, WStringView name,
                                MailFolder** attached) REQUIRES(tree_mu_);
  Result RenameFolderLocked(MailFolder* folder, WStringView name) REQUIRES(tree_mu_);
  Result DeleteFolderLocked(MailFolder* folder, MailFolder** parent) REQUIRES(tree_mu_);
  Result MoveFolderLocked(MailFolder* folder, MailFolder* new_parent, bool* moved) REQUIRES(tree_mu_);
  // Gives `folder` its open folder file, found at `path`.
  static void SetFolderFile(MailFolder& folder, const std::filesystem::path& path, std::unique_ptr<FolderFile> file);
  void RemoveFolderFile(MailFolder& folder);
  Result CheckOwnFolder(const MailFolder* folder) const;
  Result ChangeTree(const std::function<void()>& undo) REQUIRES(tree_mu_);
  StorageIndex ToIndex() const REQUIRES(tree_mu_);
  void Notify(FolderTreeChange::Kind kind, MailFolder* folder) EXCLUDES(tree_mu_);

  StorageHost& host_;
  Guid id_;
  std::filesystem::path index_path_;
  WString name_;
  WString root_path_;
  bool local_ = false;
  bool complete_ = false;
  // The index on disk could not be read whole; the next save keeps it aside.
  bool index_damaged_ = false;
  std::string index_problem_;
  std::unique_ptr<MailFolder> root_;

  mutable Mutex tree_mu_;

  mutable Mutex services_mu_;
  std::vector<StorageService*> services_ GUARDED_BY(services_mu_);
};

// Finds a folder by its full path "Storage name/A/B" among `storages`
// (open ones only). Names are compared without regard to ASCII letter case.
// A storage name may itself hold "/": the longest storage name that the path
// starts with, followed by "/" or the end, wins. Null when there is no such
// folder.
MailFolder* FindFolderByPath(const std::vector<Storage*>& storages, WStringView path);

}  // namespace trv
