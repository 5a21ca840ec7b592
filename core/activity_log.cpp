#include "core/activity_log.h"

namespace trv {

ActivityLog::~ActivityLog() { Close(); }

bool ActivityLog::Open(const std::filesystem::path& data_dir, FileSystem& fs) {
  const std::filesystem::path log_path = data_dir / kFileName;
  const std::filesystem::path bak_path = data_dir / kBackupName;

  AppendOpen how = AppendOpen::kTruncate;
  uint64_t size = 0;
  if (fs.FileSize(log_path, &size).ok()) {
    how = AppendOpen::kKeep;
    if (size > kRotateAbove) {
      fs.RemoveFile(bak_path).Ignore();  // the rename below replaces it anyway
      if (fs.Rename(log_path, bak_path).ok()) how = AppendOpen::kTruncate;
    }
  }
  std::unique_ptr<AppendFile> file;
  fs.OpenForAppend(log_path, how, &file).Ignore();  // no file: the run goes on without a log

  MutexLock lock(mu_);
  file_ = std::move(file);
  return file_ != nullptr;
}

void ActivityLog::Close() {
  MutexLock lock(mu_);
  file_.reset();
}

bool ActivityLog::is_open() const {
  MutexLock lock(mu_);
  return file_ != nullptr;
}

void ActivityLog::SetEnabled(bool on) {
  MutexLock lock(mu_);
  enabled_ = on;
}

void ActivityLog::Log(std::string_view text, int level) {
  MutexLock lock(mu_);
  if (!enabled_ || file_ == nullptr) return;
  // A failed write is ignored: logging never stops what is being logged.
  switch (level) {
    case kLogEvent: file_->Append("- ").Ignore(); break;
    case kLogSent: file_->Append("S ").Ignore(); break;
    case kLogReceived: file_->Append("R ").Ignore(); break;
    default: break;
  }
  if (!text.empty()) file_->Append(text).Ignore();
  file_->Append("\r\n").Ignore();
}

}  // namespace trv
