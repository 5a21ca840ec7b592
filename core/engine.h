// The mail engine: the one process-wide owner of the data directory, the
// activity log, the settings file, the storages and the services. Reached
// through AcquireEngine / ReleaseEngine (a reference-counted singleton); the
// last release shuts it down: services stopped and deleted, storages closed
// and deleted, the settings saved when they changed, the log closed.
//
// Data directory, resolved at every Start unless an override is set:
//   1. "DataDir" of the registry file (core/registry.h), a path relative to
//      the home directory when not absolute;
//   2. else ~/Documents/TarvoMail/ when its "Settings.ini" exists (kept
//      where an earlier installation put it);
//   3. else "InstallDir" + "/Data/";
//   4. else ${XDG_DATA_HOME:-~/.local/share}/TarvoMail/.
// The result is written back as "DataDir" and created with its parents.
// A registry file that cannot be opened leaves the data directory unknown
// and Start fails. An override (SetDataDirectoryOverride, the command line's
// "--data-dir") is used as it is, created when missing, and the registry is
// neither read nor written.
//
// Threads: Start, Idle, MoveDataDirectory, the setters and the shutdown run
// on the interface thread. The storage map and the service list each have a
// (re-entrant) lock held while they are walked, so any thread may look
// storages or services up; the tree of a storage belongs to the interface
// thread (store/mail_folder.h). Logging is safe from any thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/activity_log.h"
#include "core/engine_listeners.h"
#include "core/engine_service.h"
#include "base/guid.h"
#include "base/result.h"
#include "core/settings_file.h"
#include "core/settings_tree.h"
#include "base/thread_annotations.h"
#include "store/storage.h"
#include "base/file_system.h"
#include "store/storage_host.h"

namespace trv {

// One step of MoveDataDirectory, as its callback sees it.
struct DataMoveStep {
  int phase = 1;           // 1 moving to the new directory, 0 moving back
  std::string file_name;   // the file's name, without directory
  size_t index = 0;        // its place in the list of files
  size_t count = 0;        // files in the list
  // The file already exists in the new directory: answer true to delete
  // it there, false to refuse (the move then fails with error 80).
  bool asks_overwrite = false;
};
// The answer counts only when step.asks_overwrite is set. A callback for
// one MoveDataDirectory call only, so a std::function parameter rather than
// a listener (base/listener_list.h); called on the calling thread.
using DataMoveCallback = std::function<bool(const DataMoveStep& step)>;

// The engine's progress callback (storage events, store/storage_host.h).
// It answers the event, so there is exactly one: the interface that owns the
// engine sets it (SetProgressCallback); the engine's listener lists are for
// the many that are only told. Called on the thread that opens the storage.
using EngineProgress = std::function<int(const StorageEvent& event)>;

class MailEngine final : public StorageHost {
 public:
  static constexpr const char* kSettingsFileName = "Settings.ini";
  static constexpr const char* kLocalStorageName = "Local Folders";
  static constexpr const char* kServicePrefix = "Service.{";

  // Set before Start. The registry file is RegistryKey::DefaultPath() unless
  // set; the override replaces the data directory resolution.
  void SetRegistryPath(const std::filesystem::path& path) { registry_path_ = path; }
  void SetDataDirectoryOverride(const std::filesystem::path& dir) { data_dir_override_ = dir; }
  void SetServiceFactory(ServiceFactory factory) { factory_ = std::move(factory); }
  void SetProgressCallback(EngineProgress progress) { progress_ = std::move(progress); }
  // The file operations of storages and of MoveDataDirectory (tests put a
  // fault-injecting one here). Null restores the real file system.
  void SetFileOps(FileSystem* ops);

  // The start-up sequence: data directory, log, settings, storages (found
  // by their "*.idx" files, or "Local Folders" created), services, opening
  // the storages. `command_line` goes into the start-up log line. Returns
  // 0, or the code of the step that failed: the registry file that cannot
  // be opened, the data directory that cannot be made (ResultFromErrno's
  // code, e.g. 0x80070003 for a file in the way); start_problem() then says
  // why. A second call is rc::kFail. Once per engine.
  Result Start(std::string_view command_line);
  // Resolves (and creates) the data directory as Start would, without
  // starting, and makes Start use it: a program that must lock the
  // directory before anything touches it calls this first. 0, or the code
  // of the failing step as for Start, with start_problem() saying why. Before
  // Start only (after it: rc::kFail).
  Result PrepareDataDirectory(std::filesystem::path* dir);
  // Why Start failed, naming the file or directory; empty after success.
  const std::string& start_problem() const { return start_problem_; }
  // Start-up found or created the storages.
  bool loaded() const { return loaded_; }

  // Gives every service, then every storage, its idle call.
  void Idle();

  // The first "MIME" storage with that identifier (raw bytes); null if none.
  Storage* FindStorage(const Guid& id);
  // The storages in map order (by index path), and the services in load order.
  std::vector<Storage*> storages();
  std::vector<EngineService*> services();
  // "Storage name/A/B" (store/storage.h FindFolderByPath).
  MailFolder* FindFolder(WStringView path);

  // One line of the activity log.
  void Log(std::string_view text, int level = kLogEvent) { log_.Log(text, level); }
  ActivityLog& activity_log() { return log_; }

  const std::filesystem::path& data_directory() const { return data_dir_; }
  const std::filesystem::path& settings_path() const { return settings_path_; }
  Settings& settings() { return settings_; }
  // Saves the settings file when the tree changed since it was read or last
  // saved. A settings file that could not be read is never written over.
  Result FlushSettings();

  // Moves every file of the data directory into `new_dir` (created when
  // missing). The storages are closed first and opened again afterwards
  // from wherever their files then are; the log and the settings file follow
  // the move. REQUIRES: no service run in progress.
  // - A file of the same name in `new_dir`: the callback is asked; refused,
  //   the result is error 80 and nothing is moved.
  // - A move that fails: the files moved so far are moved back, last first
  //   (phase 0); a failed move back ends that with 0x80004005 and the files
  //   not moved back are named in the log.
  // - "DataDir" is written with the new directory when every file moved;
  //   after a failure it keeps the directory that holds the files.
  // The same directory, or none, is rc::kInvalidArg.
  Result MoveDataDirectory(const std::filesystem::path& new_dir, const DataMoveCallback& callback);

  // Services made and removed after start-up (the account operations of
  // services/service_registry.h). Interface thread.
  //
  // Takes a loaded and initialized service (already on its storage's list)
  // into the engine's list and tells the service-added listeners.
  void AddService(std::unique_ptr<EngineService> service);
  // Takes the service off the list, shuts it down (its worker joined; no
  // engine lock is held meanwhile), drops it from every storage's list and
  // deletes it. rc::kInvalidArg when it is not on the list.
  Result RemoveService(EngineService* service);
  // A new, open storage named `name` for a new service; *created gets it.
  Result CreateServiceStorage(WStringView name, Storage** created) { return CreateStorage(name, false, created); }
  // Closes a storage that no service uses and deletes its files (index,
  // index backup, folder files). rc::kInvalidArg for the local storage, one
  // still in use, or one the engine does not hold.
  Result DeleteStorage(Storage* storage);

  ListenerList<ServiceAddedListener>& service_added_listeners() { return service_added_; }
  ListenerList<ServiceLoadedListener>& service_loaded_listeners() { return service_loaded_; }
  ListenerList<StorageOpeningListener>& storage_opening_listeners() { return storage_opening_; }
  ListenerList<StorageOpenedListener>& storage_opened_listeners() { return storage_opened_; }
  ListenerList<StorageClosingListener>& storage_closing_listeners() { return storage_closing_; }
  ListenerList<FolderTreeListener>& folder_tree_listeners() { return folder_tree_; }
  ListenerList<IndexProgressListener>& index_progress_listeners() { return index_progress_; }

  // StorageHost.
  LogSink& StorageLog() override { return log_; }
  std::filesystem::path DataDirectory() override { return data_dir_; }
  int StorageProgress(const StorageEvent& event) override;
  void StorageAboutToOpen(Storage& storage) override;
  void FolderTreeChanged(Storage& storage, const FolderTreeChange& change) override;
  void IndexReadProgress(uint32_t position, uint32_t size) override;
  FileSystem& FileOps() override { return *file_ops_; }
  // Folder files fill the records a repair rebuilds from the message heads
  // (core/message_import.h).
  FolderFileOptions FolderFileSettings() override;

 private:
  friend MailEngine* AcquireEngine();
  friend void ReleaseEngine();

  MailEngine();
  ~MailEngine() override;
  void Shutdown();

  // engine_data_dir.cpp
  Result ResolveDataDirectory(std::filesystem::path* dir);
  Result WriteDataDirValue(const std::filesystem::path& dir);
  Result MoveFiles(const std::filesystem::path& from, const std::filesystem::path& to,
                   const DataMoveCallback& callback);
  void ReopenAt(const std::filesystem::path& dir);

  // engine.cpp
  void OpenSettings();
  void DiscoverStorages();
  void LoadServices();
  Result LoadService(const std::string& section);
  // A new storage, put into the map; *created (optional) gets it.
  Result CreateStorage(WStringView name, bool local, Storage** created);
  void OpenStorages();
  void NotifyOpened(Storage& storage);
  void NotifyClosing(Storage& storage);

  std::filesystem::path registry_path_;
  std::filesystem::path data_dir_override_;
  ServiceFactory factory_;
  EngineProgress progress_;
  FileSystem* file_ops_;

  ListenerList<ServiceAddedListener> service_added_;
  ListenerList<ServiceLoadedListener> service_loaded_;
  ListenerList<StorageOpeningListener> storage_opening_;
  ListenerList<StorageOpenedListener> storage_opened_;
  ListenerList<StorageClosingListener> storage_closing_;
  ListenerList<FolderTreeListener> folder_tree_;
  ListenerList<IndexProgressListener> index_progress_;

  RecursiveMutex storages_mu_;
  std::map<std::filesystem::path, std::unique_ptr<Storage>> storages_map_ GUARDED_BY(storages_mu_);
  RecursiveMutex services_mu_;
  std::vector<std::unique_ptr<EngineService>> services_ GUARDED_BY(services_mu_);

  Settings settings_;
  std::unique_ptr<SettingsStream> settings_stream_;
  uint64_t settings_saved_changes_ = 0;
  std::filesystem::path settings_path_;
  std::filesystem::path data_dir_;
  std::string start_problem_;
  bool started_ = false;
  bool loaded_ = false;
  ActivityLog log_;
};

// The engine, constructed by the first acquire; every acquire is matched by
// one release. Null when the engine cannot be constructed. Any thread.
MailEngine* AcquireEngine();
// The last release shuts the engine down and deletes it.
void ReleaseEngine();

}  // namespace trv
