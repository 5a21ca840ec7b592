#include "store/storage.h"

#include <algorithm>
#include <system_error>

#include "store/container_file.h"
#include "base/file_system.h"

namespace trv {

namespace {

// Fresh names for new folder files: a collision with an existing file is
// all but impossible, but is retried rather than trusted.
constexpr int kNewFileAttempts = 4;

void AppendRecords(const MailFolder& folder, std::vector<FolderRecord>* out) {
  for (const auto& child : folder.children()) {
    FolderRecord record{child->kind(), child->name(), child->file_name(), {}};
    AppendRecords(*child, &record.children);
    out->push_back(std::move(record));
  }
}

}  // namespace

Storage::Storage(StorageHost& host) : host_(host) {}

Storage::~Storage() { Close(); }

void Storage::Close() {
  root_.reset();
  complete_ = false;
}

Result Storage::CheckFolderName(WStringView name) {
  if (name.empty() || name.size() > kMaxFolderName) return rc::kInvalidArg;
  for (char16_t c : name) {
    if (c == u'/' || c < 0x20 || c == 0x7F) return rc::kInvalidArg;
  }
  return rc::kOk;
}

std::unique_ptr<FolderFile> Storage::NewFolderFileObject() {
  FolderFileOptions options = host_.FolderFileSettings();
  if (!options.progress) {
    StorageHost* host = &host_;
    options.progress = [host](uint32_t position, uint32_t size) { host->IndexReadProgress(position, size); };
  }
  return std::make_unique<FolderFile>(host_.StorageLog(), std::move(options));
}

Result Storage::MakeFolderFile(MailFolder& folder) {
  const std::filesystem::path dir = WithTrailingSlash(host_.DataDirectory());
  Result r = rc::kFileExists;
  for (int attempt = 0; attempt < kNewFileAttempts && r == rc::kFileExists; ++attempt) {
    const std::string file_name = Guid::NewRandom().ToRegistryString() + ".fld";
    std::unique_ptr<FolderFile> file = NewFolderFileObject();
    r = file->Create(dir / file_name);
    if (r.ok()) {
      folder.file_name_ = W(file_name);
      SetFolderFile(folder, dir / file_name, std::move(file));
    }
  }
  return r;
}

void Storage::SetFolderFile(MailFolder& folder, const std::filesystem::path& path, std::unique_ptr<FolderFile> file) {
  folder.found_dir_ = WithTrailingSlash(path.parent_path());
  folder.file_path_ = path;
  folder.file_ = std::move(file);
}

void Storage::RemoveFolderFile(MailFolder& folder) {
  if (folder.file_ == nullptr) return;
  folder.file_.reset();
  const Result r = container_internal::RemoveContainerFile(folder.file_path_);
  if (r.failed()) {
    host_.StorageLog().Log("Cannot remove folder file " + folder.file_path_.string() + ": " + ResultText(r));
  }
}

Result Storage::Create(WStringView name, const std::filesystem::path& dir, bool local) {
  if (is_open()) return rc::kInvalidArg;
  FileSystem& ops = host_.FileOps();
  const std::filesystem::path index_dir = WithTrailingSlash(dir.empty() ? host_.DataDirectory() : dir);
  std::error_code ec;
  ops.CreateDirectories(index_dir).Ignore();  // checked just below
  if (index_dir.empty() || !std::filesystem::is_directory(index_dir, ec)) return rc::kFileNotFound;

  const Guid id = local ? Guid::Nil() : Guid::NewRandom();
  const std::filesystem::path index_path = index_dir / (id.ToRegistryString() + ".idx");
  if (ops.Exists(index_path) || ops.Exists(IndexBackupPath(index_path))) return rc::kFileExists;

  id_ = id;
  name_ = WString(name);
  local_ = local;
  index_path_ = index_path;
  root_path_ = PathToWide(index_path);
  index_damaged_ = false;
  index_problem_.clear();
  host_.StorageAboutToOpen(*this);
  root_ = std::make_unique<MailFolder>(*this, nullptr, kFolderRoot, name_, WString());

  Result r = rc::kOk;
  for (uint32_t kind = kFolderInbox; kind <= kFolderDrafts && r.ok(); ++kind) {
    auto folder = std::make_unique<MailFolder>(*this, root_.get(), kind, WString(SpecialFolderName(kind)), WString());
    r = MakeFolderFile(*folder);
    if (r.ok()) root_->children_.push_back(std::move(folder));
  }
  if (r.ok()) r = SaveIndex();
  if (r.failed()) {
    for (const auto& folder : root_->children_) RemoveFolderFile(*folder);
    root_.reset();
    ops.RemoveFile(index_path).Ignore();
    index_path_.clear();
    name_.clear();
    return r;
  }
  complete_ = true;
  return rc::kOk;
}

StorageIndex Storage::ToIndex() const {
  StorageIndex index;
  index.local = local_;
  index.id = id_;
  index.name = name_;
  index.root_path = root_path_;
  index.view = root_->view_;
  AppendRecords(*root_, &index.children);
  return index;
}

Result Storage::SaveIndex() {
  MutexLock lock(tree_mu_);
  return SaveIndexLocked();
}

Result Storage::SaveIndexLocked() {
  if (!is_open()) return rc::kInvalidArg;
  const Result r =
      WriteStorageIndexFile(index_path_, EncodeStorageIndex(ToIndex()), index_damaged_, host_.FileOps(),
                            host_.StorageLog());
  if (r.ok()) index_damaged_ = false;
  return r;
}

Result Storage::AddService(StorageService* service) {
  if (service == nullptr) return rc::kInvalidArg;
  MutexLock lock(services_mu_);
  if (std::find(services_.begin(), services_.end(), service) == services_.end()) services_.push_back(service);
  return rc::kOk;
}

void Storage::RemoveService(StorageService* service) {
  MutexLock lock(services_mu_);
  services_.erase(std::remove(services_.begin(), services_.end(), service), services_.end());
}

std::vector<StorageService*> Storage::services() const {
  MutexLock lock(services_mu_);
  return services_;
}

}  // namespace trv
