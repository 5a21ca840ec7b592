#include "core/instance_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "base/file_system.h"

namespace trv {

namespace {
// FNV-1a of the directory's absolute path: one lock per data directory.
uint64_t PathHash(const std::string& s) {
  uint64_t h = 1469598103934665603ull;
  for (unsigned char c : s) {
    h ^= c;
    h *= 1099511628211ull;
  }
  return h;
}
}  // namespace

std::filesystem::path InstanceLock::RuntimeDirectory() {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  std::error_code ec;
  if (runtime != nullptr && *runtime != '\0' && std::filesystem::is_directory(runtime, ec)) return runtime;
  return "/tmp";
}

std::filesystem::path InstanceLock::LockPathFor(const std::filesystem::path& data_dir) {
  const std::filesystem::path base = RuntimeDirectory();
  const std::string suffix = base == "/tmp" ? "-" + std::to_string(::getuid()) : "";
  std::error_code ec;
  std::filesystem::path abs = std::filesystem::weakly_canonical(std::filesystem::absolute(data_dir, ec), ec);
  std::string norm = abs.string();
  while (norm.size() > 1 && norm.back() == '/') norm.pop_back();
  char hex[20];
  std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(PathHash(norm)));
  return base / (std::string(kInstanceId) + suffix + "-" + hex + ".lock");
}

InstanceLock::~InstanceLock() { Release(); }

void InstanceLock::Release() {
  if (fd_ >= 0) {
    // The file stays; only the lock and our process id go.
    if (::ftruncate(fd_, 0) != 0) {
      // Nothing to do: the next holder overwrites the contents anyway.
    }
    ::flock(fd_, LOCK_UN);
    ::close(fd_);
    fd_ = -1;
  }
}

Result InstanceLock::Acquire(const std::filesystem::path& data_dir, const std::string& program,
                             std::chrono::milliseconds wait) {
  Release();
  path_ = LockPathFor(data_dir);
  holder_pid_ = 0;
  holder_name_.clear();
  const int fd = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kPrivateFileMode);
  if (fd < 0) return ResultFromErrno(errno);

  const auto deadline = std::chrono::steady_clock::now() + wait;
  for (;;) {
    if (::flock(fd, LOCK_EX | LOCK_NB) == 0) break;
    if (errno != EWOULDBLOCK && errno != EINTR) {
      const Result r = ResultFromErrno(errno);
      ::close(fd);
      return r;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      char buf[256] = {};
      const ssize_t n = ::pread(fd, buf, sizeof buf - 1, 0);
      if (n > 0) {
        char name[200] = {};
        long pid = 0;
        if (std::sscanf(buf, "%ld %199s", &pid, name) >= 1) {
          holder_pid_ = pid;
          holder_name_ = name;
        }
      }
      ::close(fd);
      return FromWin32(32);  // sharing violation: in use by another process
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  const std::string line = std::to_string(::getpid()) + " " + program + "\n";
  if (::ftruncate(fd, 0) != 0 || ::pwrite(fd, line.data(), line.size(), 0) < 0) {
    // The lock itself holds; only the holder's description could not be written.
  }
  fd_ = fd;
  return rc::kOk;
}

}  // namespace trv
