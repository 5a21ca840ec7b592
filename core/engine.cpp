#include "core/engine.h"

#include <algorithm>
#include <ctime>
#include <new>
#include <optional>
#include <system_error>

#include "base/file_io.h"
#include "core/message_import.h"
#include "core/registry.h"

namespace trv {

namespace {

constexpr const char* kLogStarting = "Tarvo Mail Starting...";
constexpr const char* kLogDataDir = "Data directory: ";
constexpr const char* kLogLoading = "Loading: ";
constexpr const char* kLogFoundStorage = "Found storage: ";
constexpr const char* kLogCreatingLocal = "Creating 'Local Folders' storage";
constexpr const char* kLogLoadingService = "Loading service: ";
constexpr const char* kLogStorageNotFound = "Storage not found - recreating";
constexpr const char* kLogServiceLoaded = "Service loaded";
constexpr const char* kLogServiceError = "Service loading error: ";
constexpr const char* kLogMapi = "Loading MAPI objects";

// The singleton record.
struct EngineSingleton {
  Mutex mu;
  MailEngine* engine GUARDED_BY(mu) = nullptr;
  int count GUARDED_BY(mu) = 0;
};

EngineSingleton& Singleton() {
  static EngineSingleton s;
  return s;
}

std::string DateTimeLine(std::string_view text) {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  ::localtime_r(&now, &local);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &local);
  std::string line = buf;
  if (!text.empty()) {
    line += ' ';
    line += text;
  }
  return line;
}

// A wide text value, or an 8-bit one (a hand-written file) taken as UTF-8.
WString ReadText(const Settings& settings, std::string_view section, std::string_view name) {
  WString text = settings.ReadWideString(section, name);
  return text.empty() ? Utf8ToWide(settings.ReadString(section, name)) : text;
}

}  // namespace

MailEngine* AcquireEngine() {
  EngineSingleton& s = Singleton();
  MutexLock lock(s.mu);
  if (s.count == 0) {
    s.engine = new (std::nothrow) MailEngine();
    if (s.engine == nullptr) return nullptr;
  }
  ++s.count;
  return s.engine;
}

void ReleaseEngine() {
  EngineSingleton& s = Singleton();
  MutexLock lock(s.mu);
  if (s.count == 0) return;
  if (--s.count == 0) {
    s.engine->Shutdown();
    delete s.engine;
    s.engine = nullptr;
  }
}

MailEngine::MailEngine() : registry_path_(RegistryKey::DefaultPath()), file_ops_(&PosixFileSystem::Instance()) {}

MailEngine::~MailEngine() = default;

void MailEngine::SetFileOps(FileSystem* ops) {
  file_ops_ = ops != nullptr ? ops : &PosixFileSystem::Instance();
}

void MailEngine::Shutdown() {
  std::vector<std::unique_ptr<EngineService>> services;
  {
    RecursiveLock lock(services_mu_);
    services.swap(services_);
  }
  // Outside the lock: a worker being joined may still look services up.
  for (auto& service : services) {
    service->Shutdown();
    for (Storage* storage : storages()) storage->RemoveService(service.get());
  }
  services.clear();
  for (Storage* storage : storages()) NotifyClosing(*storage);
  {
    RecursiveLock lock(storages_mu_);
    storages_map_.clear();
  }
  FlushSettings().Ignore();
  log_.Close();
}

Result MailEngine::Start(std::string_view command_line) {
  if (started_) return rc::kFail;
  started_ = true;
  start_problem_.clear();
  // The data directory, then the log and its opening lines.
  std::filesystem::path dir;
  if (const Result r = ResolveDataDirectory(&dir); r.failed()) return r;
  data_dir_ = dir;
  log_.Open(data_dir_, *file_ops_);
  Log("");
  Log(kLogStarting);
  Log(DateTimeLine(command_line));
  Log(kLogDataDir + data_dir_.string());
  // Mail is private: a data directory others may read is closed to them.
  bool tightened = false;
  if (const Result r = TightenDirectoryMode(data_dir_, &tightened); r.failed()) {
    Log("Cannot make data directory " + data_dir_.string() + " private: " + ResultText(r));
  } else if (tightened) {
    Log("Data directory " + data_dir_.string() + " was open to other users; its mode is now 0700");
  }

  settings_path_ = data_dir_ / kSettingsFileName;
  Log(kLogLoading + settings_path_.string());
  OpenSettings();

  // Storages are found even without settings: the mail is there whatever
  // happened to the settings file.
  DiscoverStorages();
  if (settings_stream_ != nullptr) LoadServices();

  // Open the storages; tell of every loaded service.
  OpenStorages();
  {
    RecursiveLock lock(services_mu_);
    for (auto& service : services_) {
      service_loaded_.ForEach([&](ServiceLoadedListener& l) { l.OnServiceLoaded(*service); });
      service->NotifyLoaded();
    }
  }
  // The device's own message stores have no counterpart here.
  Log(kLogMapi);
  loaded_ = true;
  return rc::kOk;
}

Result MailEngine::PrepareDataDirectory(std::filesystem::path* dir) {
  if (started_) return rc::kFail;
  start_problem_.clear();
  if (const Result r = ResolveDataDirectory(dir); r.failed()) return r;
  data_dir_override_ = *dir;
  return rc::kOk;
}

FolderFileOptions MailEngine::FolderFileSettings() {
  FolderFileOptions options;
  options.rebuilder = RebuildRecordFromHead;
  return options;
}

void MailEngine::OpenSettings() {
  Result r;
  settings_stream_ = OpenSettingsStream(settings_path_, kSettingsOpenRead, nullptr, *file_ops_);
  if (settings_stream_ == nullptr) {
    settings_stream_ = OpenSettingsStream(settings_path_, kSettingsOpenAlways, &r, *file_ops_);
  }
  if (settings_stream_ == nullptr) {
    Log("Cannot open settings file " + settings_path_.string() + ": " + ResultText(r));
    return;
  }
  LoadSettings(settings_, *settings_stream_, &log_).Ignore();  // logs its own problems
  settings_saved_changes_ = settings_.change_count();
}

Result MailEngine::FlushSettings() {
  if (settings_stream_ == nullptr) return rc::kOk;
  const uint64_t changes = settings_.change_count();
  if (changes == settings_saved_changes_) return rc::kOk;
  const Result r = SaveSettings(settings_, *settings_stream_, &log_);
  if (r.ok()) settings_saved_changes_ = changes;
  return r;
}

namespace {

// The regular files of a directory whose extension is `ext` (any letter case).
std::vector<std::filesystem::path> FilesWithExtension(const std::filesystem::path& dir, std::string_view ext) {
  std::vector<std::filesystem::path> files;
  for (const std::string& name : ListRegularFiles(dir)) {
    if (EqualsNoCase(std::filesystem::path(name).extension().string(), ext)) files.push_back(dir / name);
  }
  return files;
}

std::optional<Guid> GuidOfFileName(const std::filesystem::path& path) {
  return Guid::Parse(std::string_view(path.filename().string()).substr(0, 38));
}

}  // namespace

void MailEngine::DiscoverStorages() {
  // An index that a crash left only as its backup is put back first, so
  // that it is found and no new storage is made in its place.
  for (const std::filesystem::path& backup : FilesWithExtension(data_dir_, ".bak")) {
    std::filesystem::path index = backup;
    index.replace_extension(".idx");
    if (GuidOfFileName(backup)) RestoreIndexFromBackup(index, *file_ops_, log_).Ignore();
  }
  const std::vector<std::filesystem::path> found = FilesWithExtension(data_dir_, ".idx");

  RecursiveLock lock(storages_mu_);
  for (const std::filesystem::path& path : found) {
    Log(kLogFoundStorage + path.string());
    auto storage = std::make_unique<Storage>(*this);
    storage->set_id(GuidOfFileName(path).value_or(Guid::Nil()));
    storages_map_[path] = std::move(storage);
  }
  if (found.empty()) {
    Log(kLogCreatingLocal);
    // Without it the engine runs with no storage.
    if (const Result r = CreateStorage(W(kLocalStorageName), true, nullptr); r.failed()) {
      Log("Storage loading error: " + ResultText(r));
    }
  }
}

Result MailEngine::CreateStorage(WStringView name, bool local, Storage** out) {
  auto storage = std::make_unique<Storage>(*this);
  if (const Result r = storage->Create(name, {}, local); r.failed()) return r;
  Storage* created = storage.get();
  {
    RecursiveLock lock(storages_mu_);
    storages_map_[created->index_path()] = std::move(storage);
  }
  NotifyOpened(*created);
  if (out != nullptr) *out = created;
  return rc::kOk;
}

void MailEngine::LoadServices() {
  for (const std::string& section : settings_.ListSections("\\")) {
    if (!StartsWithNoCase(section, kServicePrefix)) continue;
    Log(kLogLoadingService + section);
    const Result r = LoadService(section);
    Log(r.ok() ? std::string(kLogServiceLoaded) : kLogServiceError + ResultText(r));
  }
}

Result MailEngine::LoadService(const std::string& section) {
  const WString service_class = ReadText(settings_, section, "Class");
  if (service_class != u"POP3" && service_class != u"IMAP4") return rc::kFail;
  // Checked before the storage is looked for, so that a service that cannot
  // be made does not leave a new storage behind at every start.
  if (!factory_) return rc::kFail;

  Storage* storage = nullptr;
  std::vector<uint8_t> id;
  if (settings_.ReadBinary(section, "Storage", &id).ok() && id.size() == 16) {
    Guid guid;
    std::copy(id.begin(), id.end(), guid.bytes.begin());
    storage = FindStorage(guid);
  }
  const bool is_new = storage == nullptr;
  if (is_new) {
    Log(kLogStorageNotFound);
    const Result r = CreateStorage(ReadText(settings_, section, "ServiceName"), false, &storage);
    if (r.failed()) return r;
  }

  std::unique_ptr<EngineService> service = factory_(service_class, *this, *storage);
  if (service == nullptr) return rc::kFail;
  const Guid service_id = Guid::Parse(std::string_view(section).substr(8)).value_or(Guid::Nil());
  Result r = service->Load(settings_, service_id);
  if (r.ok()) r = service->Initialize();
  if (r.ok()) r = storage->AddService(service.get());
  if (r.failed()) return r;

  EngineService* added = service.get();
  {
    RecursiveLock lock(services_mu_);
    services_.push_back(std::move(service));
  }
  service_added_.ForEach([&](ServiceAddedListener& l) { l.OnServiceAdded(*added); });
  if (is_new) r = added->OnStorageNew(*storage);
  return r;
}

void MailEngine::OpenStorages() {
  RecursiveLock lock(storages_mu_);
  for (auto it = storages_map_.rbegin(); it != storages_map_.rend(); ++it) {
    Storage& storage = *it->second;
    if (storage.type() != Storage::kType || storage.is_open()) continue;
    StorageAboutToOpen(storage);
    if (storage.Open(it->first).ok()) NotifyOpened(storage);
  }
}

void MailEngine::NotifyOpened(Storage& storage) {
  storage_opened_.ForEach([&](StorageOpenedListener& l) { l.OnStorageOpened(storage); });
}

void MailEngine::NotifyClosing(Storage& storage) {
  if (!storage.is_open()) return;
  storage_closing_.ForEach([&](StorageClosingListener& l) { l.OnStorageAboutToClose(storage); });
}

void MailEngine::Idle() {
  {
    RecursiveLock lock(services_mu_);
    for (auto& service : services_) service->Idle();
  }
  RecursiveLock lock(storages_mu_);
  for (auto& [path, storage] : storages_map_) storage->Idle();
}

Storage* MailEngine::FindStorage(const Guid& id) {
  RecursiveLock lock(storages_mu_);
  for (auto& [path, storage] : storages_map_) {
    if (storage->type() == Storage::kType && storage->id() == id) return storage.get();
  }
  return nullptr;
}

std::vector<Storage*> MailEngine::storages() {
  RecursiveLock lock(storages_mu_);
  std::vector<Storage*> out;
  for (auto& [path, storage] : storages_map_) out.push_back(storage.get());
  return out;
}

std::vector<EngineService*> MailEngine::services() {
  RecursiveLock lock(services_mu_);
  std::vector<EngineService*> out;
  for (auto& service : services_) out.push_back(service.get());
  return out;
}

void MailEngine::AddService(std::unique_ptr<EngineService> service) {
  EngineService* added = service.get();
  {
    RecursiveLock lock(services_mu_);
    services_.push_back(std::move(service));
  }
  service_added_.ForEach([&](ServiceAddedListener& l) { l.OnServiceAdded(*added); });
}

Result MailEngine::RemoveService(EngineService* service) {
  std::unique_ptr<EngineService> removed;
  {
    RecursiveLock lock(services_mu_);
    auto it = std::find_if(services_.begin(), services_.end(), [&](const auto& s) { return s.get() == service; });
    if (it == services_.end()) return rc::kInvalidArg;
    removed = std::move(*it);
    services_.erase(it);
  }
  // Outside the lock: the worker being joined may still look services up.
  removed->Shutdown();
  for (Storage* storage : storages()) storage->RemoveService(removed.get());
  return rc::kOk;
}

Result MailEngine::DeleteStorage(Storage* storage) {
  std::unique_ptr<Storage> owned;
  {
    RecursiveLock lock(storages_mu_);
    auto it = std::find_if(storages_map_.begin(), storages_map_.end(),
                           [&](const auto& entry) { return entry.second.get() == storage; });
    if (it == storages_map_.end() || storage->local() || !storage->services().empty()) return rc::kInvalidArg;
    owned = std::move(it->second);
    storages_map_.erase(it);
  }
  std::vector<std::filesystem::path> files = {owned->index_path(), IndexBackupPath(owned->index_path())};
  owned->ForEachFolder([&](MailFolder& folder) {
    if (!folder.file_path().empty()) files.push_back(folder.file_path());
  });
  NotifyClosing(*owned);
  owned->Close();
  Result result;
  for (const std::filesystem::path& file : files) {
    if (!file_ops_->Exists(file)) continue;
    if (const Result r = file_ops_->RemoveFile(file); r.failed() && result.ok()) result = r;
  }
  return result;
}

MailFolder* MailEngine::FindFolder(WStringView path) { return FindFolderByPath(storages(), path); }

int MailEngine::StorageProgress(const StorageEvent& event) { return progress_ ? progress_(event) : kAnswerDefault; }

void MailEngine::StorageAboutToOpen(Storage& storage) {
  storage_opening_.ForEach([&](StorageOpeningListener& l) { l.OnStorageAboutToOpen(storage); });
}

void MailEngine::FolderTreeChanged(Storage& storage, const FolderTreeChange& change) {
  folder_tree_.ForEach([&](FolderTreeListener& l) { l.OnFolderTreeChanged(storage, change); });
}

void MailEngine::IndexReadProgress(uint32_t position, uint32_t size) {
  index_progress_.ForEach([&](IndexProgressListener& l) { l.OnIndexProgress(position, size); });
}

}  // namespace trv
