// One node of a storage's folder tree: a kind, a name, the name of its folder
// file as the storage index keeps it, and the open folder file that holds its
// messages. The root (kind 6) is the invisible top of the tree and is named
// after the storage.
//
// A folder whose file could not be found or opened stays in the tree as
// unavailable (file() is null): its record is written back with the index,
// so a folder on a medium that is not mounted today is found again tomorrow.
//
// Threads: the tree's structure (names, parents, children) belongs to the
// interface thread, which alone changes it, through the Storage. The folder
// file is internally locked: worker threads may append to and change its
// messages while the interface shows them, as long as the folder is not
// deleted meanwhile (special folders never are; the interface stops a
// storage's services before deleting or moving their folders).
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <vector>

#include "base/wide_string.h"
#include "store/folder_file.h"
#include "store/storage_index_file.h"

namespace trv {

class Storage;

enum FolderKind : uint32_t {
  kFolderUser = 0,
  kFolderInbox = 1,
  kFolderOutbox = 2,
  kFolderSent = 3,
  kFolderDeleted = 4,
  kFolderDrafts = 5,
  kFolderRoot = 6,
};

// "Inbox", "Outbox", "Sent", "Deleted", "Drafts" for kinds 1 to 5; empty
// for the others.
WStringView SpecialFolderName(uint32_t kind);

class MailFolder {
 public:
  MailFolder(Storage& storage, MailFolder* parent, uint32_t kind, WString name, WString file_name);
  ~MailFolder();
  MailFolder(const MailFolder&) = delete;
  MailFolder& operator=(const MailFolder&) = delete;

  Storage& storage() const { return storage_; }
  uint32_t kind() const { return kind_; }
  const WString& name() const { return name_; }
  // As kept in the index: "{GUID}.fld", a path relative to the home
  // directory, or an absolute path.
  const WString& file_name() const { return file_name_; }
  // Where the folder file was found, ending in "/"; empty until it is.
  const std::filesystem::path& found_dir() const { return found_dir_; }
  const std::filesystem::path& file_path() const { return file_path_; }

  MailFolder* parent() const { return parent_; }
  const std::vector<std::unique_ptr<MailFolder>>& children() const { return children_; }
  bool is_root() const { return parent_ == nullptr; }
  // Inbox, Outbox, Sent, Deleted or Drafts.
  bool is_special() const { return kind_ >= kFolderInbox && kind_ <= kFolderDrafts; }
  // Depth below the root (the root's children are 1).
  int depth() const;

  // The open folder file; null while the folder is unavailable (and for
  // the root, which has none).
  FolderFile* file() const { return file_.get(); }
  bool available() const { return file_ != nullptr; }

  // "Storage name/A/B": the storage name and the names from the root down,
  // joined by "/".
  WString PathText() const;

  // The child of that name, compared without regard to ASCII letter case.
  MailFolder* FindChild(WStringView name) const;

  // Values the interface keeps with the root; written back unchanged.
  const RootViewValues& view() const { return view_; }

 private:
  friend class Storage;

  Storage& storage_;
  MailFolder* parent_;
  uint32_t kind_;
  WString name_;
  WString file_name_;
  std::filesystem::path found_dir_;
  std::filesystem::path file_path_;
  std::vector<std::unique_ptr<MailFolder>> children_;
  std::unique_ptr<FolderFile> file_;
  RootViewValues view_;
};

}  // namespace trv
