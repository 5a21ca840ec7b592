// The single-instance lock: an flock()ed file in $XDG_RUNTIME_DIR (else /tmp
// with the user id in the name), named after the program's single-instance
// identifier and the data directory it guards. The holder writes its process
// id and program name into the file so that a second process can say who
// holds the directory. The lock is released when the object is destroyed or
// the process ends, however it ends.
#pragma once

#include <chrono>
#include <filesystem>
#include <string>

#include "base/result.h"

namespace trv {

class InstanceLock {
 public:
  // The identifier of the single-instance event; the lock file is named after it.
  static constexpr const char* kInstanceId = "{5FE8B3F5-363C-487d-BE24-3D03BCA09133}";

  InstanceLock() = default;
  ~InstanceLock();
  InstanceLock(const InstanceLock&) = delete;
  InstanceLock& operator=(const InstanceLock&) = delete;

  // Takes the lock for data_dir, waiting up to `wait` for another holder to
  // let go. On failure returns a failure code and fills holder_pid and
  // holder_name (0 and empty when they could not be read) and error_text.
  Result Acquire(const std::filesystem::path& data_dir, const std::string& program,
                 std::chrono::milliseconds wait);
  void Release();
  bool held() const { return fd_ >= 0; }

  long holder_pid() const { return holder_pid_; }
  const std::string& holder_name() const { return holder_name_; }
  const std::filesystem::path& lock_path() const { return path_; }

  // Where a user's lock files and sockets live: $XDG_RUNTIME_DIR when it is
  // a directory, else /tmp (where names carry "-<uid>").
  static std::filesystem::path RuntimeDirectory();
  // Where the lock file for a data directory lives.
  static std::filesystem::path LockPathFor(const std::filesystem::path& data_dir);

 private:
  int fd_ = -1;
  long holder_pid_ = 0;
  std::string holder_name_;
  std::filesystem::path path_;
};

}  // namespace trv
