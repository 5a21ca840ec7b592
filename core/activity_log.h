// The activity log "TarvoMail.log" in the data directory: 8-bit lines, each
// written as three writes (a two-byte prefix by level, the text, "\r\n").
// Logging never reports an error to its caller and never stops the work being
// logged. Thread-safe: worker threads log protocol lines while the main
// thread logs engine events; a line is never split by another thread's line.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "base/file_system.h"
#include "base/log_sink.h"
#include "base/thread_annotations.h"

namespace trv {

class ActivityLog final : public LogSink {
 public:
  static constexpr const char* kFileName = "TarvoMail.log";
  static constexpr const char* kBackupName = "TarvoMail.bak";
  // A log larger than this at opening is renamed to the backup name.
  static constexpr unsigned long long kRotateAbove = 0x31FFF;  // 204,799 bytes

  ActivityLog() = default;
  ~ActivityLog() override;
  ActivityLog(const ActivityLog&) = delete;
  ActivityLog& operator=(const ActivityLog&) = delete;

  // Opens <data_dir>/TarvoMail.log for appending, first rotating it to
  // TarvoMail.bak when it exceeds kRotateAbove bytes. A log that cannot be
  // opened leaves the run without a log; returns whether a file is open.
  // The file operations go through `fs`, which must outlive the open file.
  bool Open(const std::filesystem::path& data_dir, FileSystem& fs = PosixFileSystem::Instance());
  void Close();
  bool is_open() const;

  // Logging is on from construction; while off nothing is written.
  void SetEnabled(bool on);

  void Log(std::string_view text, int level = kLogEvent) override;

 private:
  mutable Mutex mu_;
  std::unique_ptr<AppendFile> file_ GUARDED_BY(mu_);
  bool enabled_ GUARDED_BY(mu_) = true;
};

}  // namespace trv
