// The data directory: where it is, and moving it with everything in it.
#include <algorithm>
#include <cstdlib>
#include <system_error>

#include "core/engine.h"
#include "base/file_io.h"
#include "core/registry.h"

namespace trv {

namespace {

constexpr std::string_view kDataDirValue = "DataDir";
constexpr std::string_view kInstallDirValue = "InstallDir";

std::filesystem::path XdgDataHome(const std::filesystem::path& home) {
  const char* xdg = std::getenv("XDG_DATA_HOME");
  if (xdg != nullptr && xdg[0] == '/') return xdg;
  return home.empty() ? std::filesystem::path() : home / ".local/share";
}

}  // namespace

Result MailEngine::ResolveDataDirectory(std::filesystem::path* dir) {
  std::error_code ec;
  std::filesystem::path resolved;
  if (!data_dir_override_.empty()) {
    resolved = std::filesystem::absolute(data_dir_override_, ec);
  } else {
    std::unique_ptr<RegistryKey> key;
    Result r = RegistryKey::Open(registry_path_, &key);
    if (r.failed()) {
      start_problem_ = "Cannot open registry file " + registry_path_.string() + ": " + ResultText(r);
      return r;
    }
    const std::filesystem::path home = HomeDirectory();
    const std::filesystem::path documents = home / "Documents/TarvoMail/";
    WString value;
    if (key->ReadString("", kDataDirValue, &value).ok() && !value.empty()) {
      resolved = home / WideToPath(value);  // an absolute value stands alone
    } else if (!home.empty() && file_ops_->Exists(documents / kSettingsFileName)) {
      resolved = documents;
    } else if (key->ReadString("", kInstallDirValue, &value).ok() && !value.empty()) {
      resolved = WithTrailingSlash(WideToPath(value)) / "Data/";
    } else {
      const std::filesystem::path data_home = XdgDataHome(home);
      if (!data_home.empty()) resolved = data_home / "TarvoMail/";
    }
    resolved = WithTrailingSlash(resolved);
    if (!resolved.empty()) {
      r = key->WriteString("", kDataDirValue, PathToWide(resolved));
      if (r.ok()) r = key->Flush();
      if (r.failed()) start_problem_ = "Cannot write registry file " + registry_path_.string() + ": " + ResultText(r);
    }
  }
  resolved = WithTrailingSlash(resolved);
  if (resolved.empty()) {
    start_problem_ = "No data directory: no home directory is known";
    return ResultFromErrno(ENOENT);
  }
  if (const Result r = file_ops_->CreateDirectories(resolved); r.failed()) {
    start_problem_ = "Cannot create data directory " + resolved.string() + ": " + ResultText(r);
    return r;
  }
  *dir = resolved;
  return rc::kOk;
}

Result MailEngine::WriteDataDirValue(const std::filesystem::path& dir) {
  std::unique_ptr<RegistryKey> key;
  Result r = RegistryKey::Open(registry_path_, &key, &log_);
  if (r.ok()) r = key->WriteString("", kDataDirValue, PathToWide(dir));
  if (r.ok()) r = key->Flush();
  return r;
}

Result MailEngine::MoveDataDirectory(const std::filesystem::path& new_dir, const DataMoveCallback& callback) {
  std::error_code ec;
  std::filesystem::path from = data_dir_;
  if (from.empty()) {
    const Result r = ResolveDataDirectory(&from);
    if (r.failed()) return r;
  }
  from = WithTrailingSlash(from);
  if (new_dir.empty()) return rc::kInvalidArg;
  const std::filesystem::path to = WithTrailingSlash(std::filesystem::absolute(new_dir, ec));
  if (const Result r = file_ops_->CreateDirectories(to); r.failed()) return r;
  if (std::filesystem::equivalent(from, to, ec)) return rc::kInvalidArg;

  // Folder files are closed so that every byte is in the files being moved;
  // the settings are saved so that the moved file holds them.
  for (Storage* storage : storages()) NotifyClosing(*storage);
  {
    RecursiveLock lock(storages_mu_);
    for (auto& [path, storage] : storages_map_) storage->Close();
  }
  FlushSettings().Ignore();
  Log("Moving data directory " + from.string() + " to " + to.string());
  const Result r = MoveFiles(from, to, callback);
  if (r.ok()) {
    const Result written = WriteDataDirValue(to);
    if (written.failed()) Log("Cannot write DataDir " + to.string() + ": " + ResultText(written));
  }
  ReopenAt(r.ok() ? to : from);
  return r;
}

Result MailEngine::MoveFiles(const std::filesystem::path& from, const std::filesystem::path& to,
                             const DataMoveCallback& callback) {
  Result kept;
  const std::vector<std::string> files = ListRegularFiles(from, &kept);
  if (kept.failed()) return kept;
  const size_t count = files.size();
  auto ask = [&](int phase, size_t i, bool overwrite) {
    return callback ? callback(DataMoveStep{phase, files[i], i, count, overwrite}) : !overwrite;
  };

  for (size_t i = 0; i < count && kept.ok(); ++i) {
    if (!file_ops_->Exists(to / files[i])) continue;
    if (ask(1, i, true)) {
      kept = file_ops_->RemoveFile(to / files[i]);
    } else {
      kept = rc::kFileExists;
    }
  }
  // A refused or failed overwrite moves nothing, so nothing needs moving back.
  size_t moved = 0;
  for (; moved < count && kept.ok(); ++moved) {
    ask(1, moved, false);
    const Result r = file_ops_->MoveFile(from / files[moved], to / files[moved]);
    if (r.failed()) {
      Log("Cannot move " + (from / files[moved]).string() + ": " + ResultText(r));
      kept = r;
      break;
    }
  }
  if (kept.ok()) return kept;
  while (moved > 0) {
    --moved;
    ask(0, moved, false);
    if (file_ops_->MoveFile(to / files[moved], from / files[moved]).failed()) {
      for (size_t i = 0; i <= moved; ++i) Log("Left in " + to.string() + ": " + files[i]);
      return rc::kFail;
    }
  }
  return kept;
}

void MailEngine::ReopenAt(const std::filesystem::path& dir) {
  const std::filesystem::path old_dir = data_dir_;
  if (dir != data_dir_) {
    data_dir_ = dir;
    log_.Open(data_dir_, *file_ops_);
    settings_path_ = data_dir_ / kSettingsFileName;
    if (settings_stream_ != nullptr) {
      settings_stream_ = OpenSettingsStream(settings_path_, kSettingsOpenAlways, nullptr, *file_ops_);
      // Read back what was just saved, so that the stream may write it again.
      if (settings_stream_ != nullptr) LoadSettings(settings_, *settings_stream_, &log_).Ignore();
      settings_saved_changes_ = settings_.change_count();
    }
  }
  // The storages are opened again under their new paths.
  RecursiveLock lock(storages_mu_);
  std::map<std::filesystem::path, std::unique_ptr<Storage>> reopened;
  for (auto& [path, storage] : storages_map_) {
    // Only the index files of the data directory itself have moved.
    const bool moved = WithTrailingSlash(path.parent_path()) == old_dir;
    const std::filesystem::path index = moved ? data_dir_ / path.filename() : path;
    StorageAboutToOpen(*storage);
    if (storage->Open(index).ok()) NotifyOpened(*storage);
    reopened[index] = std::move(storage);
  }
  storages_map_ = std::move(reopened);
}

}  // namespace trv
