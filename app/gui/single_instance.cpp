#include "app/gui/single_instance.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <QSocketNotifier>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "core/instance_lock.h"

namespace trv::gui {

namespace {

bool FillAddress(const std::filesystem::path& path, sockaddr_un* addr) {
  std::memset(addr, 0, sizeof *addr);
  addr->sun_family = AF_UNIX;
  const std::string p = path.string();
  if (p.size() >= sizeof addr->sun_path) return false;
  std::memcpy(addr->sun_path, p.data(), p.size());
  return true;
}

bool InTmp(const std::filesystem::path& dir) { return dir == "/tmp"; }

}  // namespace

SingleInstance::SingleInstance(std::filesystem::path dir, std::chrono::milliseconds wait)
    : dir_(std::move(dir)), wait_(wait) {
  if (InTmp(dir_)) suffix_ = "-" + std::to_string(::getuid());
}

SingleInstance::~SingleInstance() {
  notifier_.reset();
  if (listen_fd_ >= 0) {
    ::close(listen_fd_);
    ::unlink(socket_path().c_str());
  }
  if (lock_fd_ >= 0) ::close(lock_fd_);  // closing drops the flock
}

std::filesystem::path SingleInstance::lock_path() const {
  return dir_ / (std::string(InstanceLock::kInstanceId) + suffix_ + ".lock");
}

std::filesystem::path SingleInstance::socket_path() const { return dir_ / (std::string(kWindowClass) + suffix_); }

bool SingleInstance::Send(const std::string& message) {
  sockaddr_un addr;
  if (!FillAddress(socket_path(), &addr)) return false;
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  bool sent = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  for (size_t done = 0; sent && done < message.size();) {
    const ssize_t n = ::send(fd, message.data() + done, message.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    sent = n > 0;
    if (sent) done += static_cast<size_t>(n);
  }
  if (sent) {
    // Wait for the receiver to close its side: the message has then been taken.
    ::shutdown(fd, SHUT_WR);
    char byte;
    while (::recv(fd, &byte, 1, 0) < 0 && errno == EINTR) {
    }
  }
  ::close(fd);
  return sent;
}

SingleInstance::Outcome SingleInstance::Check(const std::string& command_line) {
  const std::string message = command_line.empty() ? "A" : "D" + command_line;
  lock_fd_ = ::open(lock_path().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  const bool owned = lock_fd_ < 0 || ::flock(lock_fd_, LOCK_EX | LOCK_NB) == 0;
  if (Send(message)) return Outcome::kHandedOver;
  if (owned) return Outcome::kFirst;
  // Another process holds the lock and shows no window yet (or any more).
  std::this_thread::sleep_for(wait_);
  return Send(message) ? Outcome::kHandedOver : Outcome::kGaveUp;
}

bool SingleInstance::SendClose() { return Send("C"); }

Result SingleInstance::Listen() {
  sockaddr_un addr;
  if (!FillAddress(socket_path(), &addr)) return rc::kInvalidArg;
  listen_fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (listen_fd_ < 0) return ResultFromErrno(errno);
  // A socket file left by a process that died is ours to replace: we hold the lock.
  ::unlink(addr.sun_path);
  const mode_t old_mask = ::umask(0077);
  const bool bound = ::bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  ::umask(old_mask);
  if (!bound || ::listen(listen_fd_, 8) != 0) {
    const Result r = ResultFromErrno(errno);
    ::close(listen_fd_);
    listen_fd_ = -1;
    return r;
  }
  notifier_ = std::make_unique<QSocketNotifier>(listen_fd_, QSocketNotifier::Read);
  connect(notifier_.get(), &QSocketNotifier::activated, this, [this] { Accept(); });
  return rc::kOk;
}

void SingleInstance::Accept() {
  for (;;) {
    const int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return;  // EAGAIN: no more waiting
    // A sender writes its message at once and shuts its side; a second is
    // more than enough for that on one machine.
    timeval timeout{1, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    std::string message;
    char buf[4096];
    for (;;) {
      const ssize_t n = ::recv(fd, buf, sizeof buf, 0);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      message.append(buf, static_cast<size_t>(n));
    }
    ::close(fd);
    if (message == "C") {
      emit closeRequested();
    } else if (!message.empty() && (message[0] == 'A' || message[0] == 'D')) {
      emit activateRequested(QString::fromUtf8(message.data() + 1, static_cast<qsizetype>(message.size() - 1)));
    }
  }
}

}  // namespace trv::gui
