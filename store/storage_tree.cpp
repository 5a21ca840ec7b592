// Changing, searching and walking a storage's folder tree.
#include <algorithm>
#include <system_error>
#include <utility>

#include "store/storage.h"

namespace trv {

namespace {

bool HoldsSpecialFolder(const MailFolder& folder) {
  if (folder.is_special()) return true;
  return std::any_of(folder.children().begin(), folder.children().end(),
                     [](const auto& child) { return HoldsSpecialFolder(*child); });
}

bool IsInSubtree(const MailFolder* folder, const MailFolder& top) {
  for (; folder != nullptr; folder = folder->parent()) {
    if (folder == &top) return true;
  }
  return false;
}

void Visit(const MailFolder& folder, const std::function<void(MailFolder&)>& visit) {
  for (const auto& child : folder.children()) {
    visit(*child);
    Visit(*child, visit);
  }
}

// `path` relative to `base` when it lies below it, else empty.
std::filesystem::path RelativeBelow(const std::filesystem::path& path, const std::filesystem::path& base) {
  if (base.empty()) return {};
  const std::filesystem::path rel = path.lexically_relative(base.lexically_normal());
  if (rel.empty() || *rel.begin() == "..") return {};
  return rel;
}

}  // namespace

void Storage::Notify(FolderTreeChange::Kind kind, MailFolder* folder) {
  host_.FolderTreeChanged(*this, FolderTreeChange{kind, folder});
}

Result Storage::CheckOwnFolder(const MailFolder* folder) const {
  if (!is_open() || folder == nullptr || &folder->storage() != this) return rc::kInvalidArg;
  return rc::kOk;
}

Result Storage::ChangeTree(const std::function<void()>& undo) {
  const Result r = SaveIndexLocked();
  if (r.failed()) undo();
  return r;
}

Result Storage::CreateFolder(MailFolder* parent, WStringView name, MailFolder** created) {
  MailFolder* added = nullptr;
  {
    MutexLock lock(tree_mu_);
    const Result r = CreateFolderLocked(parent, name, &added);
    if (r.failed()) return r;
  }
  Notify(FolderTreeChange::kCreated, added);
  if (created != nullptr) *created = added;
  return rc::kOk;
}

Result Storage::CreateFolderLocked(MailFolder* parent, WStringView name, MailFolder** created) {
  Result r = CheckOwnFolder(parent);
  if (r.ok()) r = CheckFolderName(name);
  if (r.failed()) return r;
  if (parent->FindChild(name) != nullptr) return rc::kFileExists;

  auto folder = std::make_unique<MailFolder>(*this, parent, kFolderUser, WString(name), WString());
  r = MakeFolderFile(*folder);
  if (r.failed()) return r;
  MailFolder* added = folder.get();
  parent->children_.push_back(std::move(folder));
  r = ChangeTree([&] {
    RemoveFolderFile(*added);
    parent->children_.pop_back();
  });
  if (r.failed()) return r;
  *created = added;
  return rc::kOk;
}

Result Storage::AttachFolderFile(MailFolder* parent, const std::filesystem::path& file, WStringView name,
                                 MailFolder** attached) {
  MailFolder* added = nullptr;
  {
    MutexLock lock(tree_mu_);
    const Result r = AttachFolderFileLocked(parent, file, name, &added);
    if (r.failed()) return r;
  }
  Notify(FolderTreeChange::kAttached, added);
  if (attached != nullptr) *attached = added;
  return rc::kOk;
}

Result Storage::AttachFolderFileLocked(MailFolder* parent, const std::filesystem::path& file, WStringView name,
                                       MailFolder** attached) {
  Result r = CheckOwnFolder(parent);
  if (r.ok()) r = CheckFolderName(name);
  if (r.failed()) return r;
  if (parent->FindChild(name) != nullptr) return rc::kFileExists;

  std::error_code ec;
  const std::filesystem::path path = std::filesystem::absolute(file, ec).lexically_normal();
  if (ec) return ResultFromErrno(ec.value());
  bool in_tree = false;
  Visit(*root_, [&](MailFolder& f) {
    std::error_code eq;
    in_tree |= f.available() && std::filesystem::equivalent(f.file_path(), path, eq);
  });
  if (in_tree) return rc::kInvalidArg;

  std::unique_ptr<FolderFile> opened = NewFolderFileObject();
  r = opened->Open(path);
  if (r.failed()) return r;

  std::filesystem::path stored = path.parent_path() == WithTrailingSlash(host_.DataDirectory()).parent_path()
                                     ? path.filename()
                                     : RelativeBelow(path, host_.HomeDirectory());
  if (stored.empty()) stored = path;
  auto folder = std::make_unique<MailFolder>(*this, parent, kFolderUser, WString(name), PathToWide(stored));
  SetFolderFile(*folder, path, std::move(opened));
  MailFolder* added = folder.get();
  parent->children_.push_back(std::move(folder));
  r = ChangeTree([&] { parent->children_.pop_back(); });  // the file was not ours: it stays
  if (r.failed()) return r;
  *attached = added;
  return rc::kOk;
}

Result Storage::RenameFolder(MailFolder* folder, WStringView name) {
  {
    MutexLock lock(tree_mu_);
    const Result r = RenameFolderLocked(folder, name);
    if (r.failed()) return r;
  }
  Notify(FolderTreeChange::kRenamed, folder);
  return rc::kOk;
}

Result Storage::RenameFolderLocked(MailFolder* folder, WStringView name) {
  Result r = CheckOwnFolder(folder);
  if (r.ok() && folder->is_root()) r = rc::kInvalidArg;
  if (r.ok()) r = CheckFolderName(name);
  if (r.failed()) return r;
  const MailFolder* same = folder->parent()->FindChild(name);
  if (same != nullptr && same != folder) return rc::kFileExists;

  WString old_name = std::exchange(folder->name_, WString(name));
  return ChangeTree([&] { folder->name_ = std::move(old_name); });
}

Result Storage::DeleteFolder(MailFolder* folder) {
  MailFolder* parent = nullptr;
  {
    MutexLock lock(tree_mu_);
    const Result r = DeleteFolderLocked(folder, &parent);
    if (r.failed()) return r;
  }
  Notify(FolderTreeChange::kDeleted, parent);
  return rc::kOk;
}

Result Storage::DeleteFolderLocked(MailFolder* folder, MailFolder** parent_out) {
  Result r = CheckOwnFolder(folder);
  if (r.ok() && (folder->is_root() || HoldsSpecialFolder(*folder))) r = rc::kInvalidArg;
  if (r.failed()) return r;

  MailFolder* parent = folder->parent();
  auto& siblings = parent->children_;
  const auto at = std::find_if(siblings.begin(), siblings.end(), [&](const auto& c) { return c.get() == folder; });
  if (at == siblings.end()) return rc::kInvalidArg;
  const size_t position = static_cast<size_t>(at - siblings.begin());
  std::unique_ptr<MailFolder> detached = std::move(*at);
  siblings.erase(at);
  r = ChangeTree([&] {
    siblings.insert(siblings.begin() + static_cast<std::ptrdiff_t>(position), std::move(detached));
  });
  if (r.failed()) return r;

  // The index no longer names these files: now they may go.
  std::vector<MailFolder*> subtree = {detached.get()};
  Visit(*detached, [&](MailFolder& f) { subtree.push_back(&f); });
  for (MailFolder* f : subtree) RemoveFolderFile(*f);
  detached.reset();
  *parent_out = parent;
  return rc::kOk;
}

Result Storage::MoveFolder(MailFolder* folder, MailFolder* new_parent) {
  bool moved = false;
  {
    MutexLock lock(tree_mu_);
    const Result r = MoveFolderLocked(folder, new_parent, &moved);
    if (r.failed()) return r;
  }
  if (moved) Notify(FolderTreeChange::kMoved, folder);
  return rc::kOk;
}

Result Storage::MoveFolderLocked(MailFolder* folder, MailFolder* new_parent, bool* moved) {
  Result r = CheckOwnFolder(folder);
  if (r.ok()) r = CheckOwnFolder(new_parent);
  if (r.ok() && (folder->is_root() || HoldsSpecialFolder(*folder) || IsInSubtree(new_parent, *folder))) {
    r = rc::kInvalidArg;
  }
  if (r.failed()) return r;
  MailFolder* old_parent = folder->parent();
  if (old_parent == new_parent) return rc::kOk;
  if (new_parent->FindChild(folder->name()) != nullptr) return rc::kFileExists;

  auto& from = old_parent->children_;
  const auto at = std::find_if(from.begin(), from.end(), [&](const auto& c) { return c.get() == folder; });
  if (at == from.end()) return rc::kInvalidArg;
  const size_t position = static_cast<size_t>(at - from.begin());
  new_parent->children_.push_back(std::move(*at));
  from.erase(at);
  folder->parent_ = new_parent;
  r = ChangeTree([&] {
    folder->parent_ = old_parent;
    from.insert(from.begin() + static_cast<std::ptrdiff_t>(position), std::move(new_parent->children_.back()));
    new_parent->children_.pop_back();
  });
  *moved = r.ok();
  return r;
}

MailFolder* Storage::FindFolder(WStringView path) const {
  MutexLock lock(tree_mu_);
  MailFolder* folder = root_.get();
  while (folder != nullptr && !path.empty()) {
    const size_t slash = path.find(u'/');
    folder = folder->FindChild(path.substr(0, slash));
    path = slash == WStringView::npos ? WStringView() : path.substr(slash + 1);
  }
  return folder;
}

MailFolder* Storage::SpecialFolder(uint32_t kind) const {
  MutexLock lock(tree_mu_);
  MailFolder* found = nullptr;
  if (root_ == nullptr) return nullptr;
  Visit(*root_, [&](MailFolder& f) {
    if (found == nullptr && f.kind() == kind) found = &f;
  });
  return found;
}

void Storage::ForEachFolder(const std::function<void(MailFolder&)>& visit) const {
  MutexLock lock(tree_mu_);
  if (root_ != nullptr) Visit(*root_, visit);
}

MailFolder* FindFolderByPath(const std::vector<Storage*>& storages, WStringView path) {
  const Storage* best = nullptr;
  for (const Storage* storage : storages) {
    const WString& name = storage->name();
    if (!storage->is_open() || path.size() < name.size() || !EqualsNoCase(path.substr(0, name.size()), name)) {
      continue;
    }
    if (path.size() > name.size() && path[name.size()] != u'/') continue;
    if (best == nullptr || name.size() > best->name().size()) best = storage;
  }
  if (best == nullptr) return nullptr;
  WStringView rest = path.substr(best->name().size());
  if (!rest.empty()) rest.remove_prefix(1);
  return best->FindFolder(rest);
}

}  // namespace trv
