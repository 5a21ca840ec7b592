#include "core/activity_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/file_io.h"

namespace trv {

ActivityLog::~ActivityLog() { Close(); }

bool ActivityLog::Open(const std::filesystem::path& data_dir) {
  const std::filesystem::path log_path = data_dir / kFileName;
  const std::filesystem::path bak_path = data_dir / kBackupName;

  bool fresh = true;
  struct stat st;
  if (::stat(log_path.c_str(), &st) == 0) {
    fresh = false;
    if (static_cast<unsigned long long>(st.st_size) > kRotateAbove) {
      ::unlink(bak_path.c_str());
      if (::rename(log_path.c_str(), bak_path.c_str()) == 0) fresh = true;
    }
  }
  const int flags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | (fresh ? O_TRUNC : 0);
  const int fd = ::open(log_path.c_str(), flags, 0644);

  MutexLock lock(mu_);
  if (fd_ >= 0) ::close(fd_);
  fd_ = fd;
  return fd_ >= 0;
}

void ActivityLog::Close() {
  MutexLock lock(mu_);
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

bool ActivityLog::is_open() const {
  MutexLock lock(mu_);
  return fd_ >= 0;
}

void ActivityLog::SetEnabled(bool on) {
  MutexLock lock(mu_);
  enabled_ = on;
}

void ActivityLog::Log(std::string_view text, int level) {
  MutexLock lock(mu_);
  if (!enabled_ || fd_ < 0) return;
  // A failed write is ignored: logging never stops what is being logged.
  switch (level) {
    case kLogEvent: WriteAllBytes(fd_, "- ").Ignore(); break;
    case kLogSent: WriteAllBytes(fd_, "S ").Ignore(); break;
    case kLogReceived: WriteAllBytes(fd_, "R ").Ignore(); break;
    default: break;
  }
  if (!text.empty()) WriteAllBytes(fd_, text).Ignore();
  WriteAllBytes(fd_, "\r\n").Ignore();
}

}  // namespace trv
