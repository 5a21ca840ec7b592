// The system network: non-blocking TCP sockets waited on with poll(); name
// lookups on a thread of their own, so that a stop ends the wait for them.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>

#include "base/thread_annotations.h"
#include "net/socket_errors.h"
#include "net/transport.h"

namespace trv {

bool IpAddress::is_ipv4() const { return family == AF_INET; }

std::string IpAddress::ToString() const {
  char text[INET6_ADDRSTRLEN] = {};
  if (family != AF_INET && family != AF_INET6) return {};
  if (!inet_ntop(family, bytes.data(), text, sizeof text)) return {};
  return text;
}

bool ParseIpv4Literal(std::string_view text, IpAddress* out) {
  const std::string z(text);
  if (z.find('\0') != std::string::npos) return false;
  const in_addr_t a = inet_addr(z.c_str());
  if (a == INADDR_NONE) return false;
  *out = IpAddress{};
  out->family = AF_INET;
  std::memcpy(out->bytes.data(), &a, 4);
  return true;
}

namespace {

socklen_t ToSockaddr(const IpAddress& a, uint16_t port, sockaddr_storage* ss) {
  std::memset(ss, 0, sizeof *ss);
  if (a.family == AF_INET6) {
    auto* s6 = reinterpret_cast<sockaddr_in6*>(ss);
    s6->sin6_family = AF_INET6;
    s6->sin6_port = htons(port);
    std::memcpy(&s6->sin6_addr, a.bytes.data(), 16);
    return sizeof *s6;
  }
  auto* s4 = reinterpret_cast<sockaddr_in*>(ss);
  s4->sin_family = AF_INET;
  s4->sin_port = htons(port);
  std::memcpy(&s4->sin_addr, a.bytes.data(), 4);
  return sizeof *s4;
}

IpAddress FromSockaddr(const sockaddr* sa) {
  IpAddress a;
  if (sa->sa_family == AF_INET) {
    a.family = AF_INET;
    std::memcpy(a.bytes.data(), &reinterpret_cast<const sockaddr_in*>(sa)->sin_addr, 4);
  } else if (sa->sa_family == AF_INET6) {
    a.family = AF_INET6;
    std::memcpy(a.bytes.data(), &reinterpret_cast<const sockaddr_in6*>(sa)->sin6_addr, 16);
  }
  return a;
}

Result Errno() { return SocketErrorFromErrno(errno); }

class TcpTransport final : public Transport {
 public:
  ~TcpTransport() override {
    MutexLock lock(mu_);
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

  Result Create(int family, const IpAddress* local) {
    const int fd = ::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP);
    if (fd < 0) return Errno();
    if (local) {
      sockaddr_storage ss;
      const socklen_t len = ToSockaddr(*local, 0, &ss);
      if (::bind(fd, reinterpret_cast<sockaddr*>(&ss), len) != 0) {
        const Result r = Errno();
        ::close(fd);
        return r;
      }
    }
    // Protocol lines are small and answered at once.
    const int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    MutexLock lock(mu_);
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
    family_ = family;
    bound_ = local != nullptr;
    return rc::kOk;
  }

  Result Connect(const IpAddress& address, uint16_t port) override {
    if (aborted_) return rc::kAbort;
    if (address.family != family_) {
      // The stream was opened for IPv4 before the name turned out to have
      // only an IPv6 address; an unbound stream can change its family.
      if (bound_) return rc::kSockNotSupported;
      if (Result r = Create(address.family, nullptr); r.failed()) return r;
    }
    sockaddr_storage ss;
    const socklen_t len = ToSockaddr(address, port, &ss);
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&ss), len) == 0) return rc::kOk;
    // An interrupted connect goes on in the background, like one in progress.
    if (errno == EINTR) return rc::kSockInProgress;
    return Errno();
  }

  Result FinishConnect() override {
    int err = 0;
    socklen_t len = sizeof err;
    if (::getsockopt(fd_, SOL_SOCKET, SO_ERROR, &err, &len) != 0) return Errno();
    if (aborted_) return rc::kAbort;
    return SocketErrorFromErrno(err);
  }

  Result Wait(WaitFor what, int timeout_ms, bool* ready) override {
    *ready = false;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
      if (aborted_) return rc::kAbort;
      pollfd p{fd_, static_cast<short>(what == WaitFor::kRead ? POLLIN : POLLOUT), 0};
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      const int n = ::poll(&p, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
      if (n < 0) {
        if (errno == EINTR) continue;  // a signal is no reason to end the wait early
        return Errno();
      }
      if (aborted_) return rc::kAbort;
      // Errors and hang-ups count as ready: the read or write reports them.
      *ready = n > 0;
      return rc::kOk;
    }
  }

  Result Read(char* buffer, size_t size, size_t* received) override {
    *received = 0;
    for (;;) {
      if (aborted_) return rc::kAbort;
      const ssize_t n = ::recv(fd_, buffer, size, 0);
      if (n >= 0) {
        *received = static_cast<size_t>(n);
        return rc::kOk;
      }
      if (errno != EINTR) return Errno();
    }
  }

  Result Write(const char* data, size_t size, size_t* sent) override {
    *sent = 0;
    for (;;) {
      if (aborted_) return rc::kAbort;
      const ssize_t n = ::send(fd_, data, size, MSG_NOSIGNAL);
      if (n >= 0) {
        *sent = static_cast<size_t>(n);
        return rc::kOk;
      }
      if (errno != EINTR) return Errno();
    }
  }

  void Shutdown(ShutdownHow how) override {
    ::shutdown(fd_, how == ShutdownHow::kBoth ? SHUT_RDWR : how == ShutdownHow::kSending ? SHUT_WR : SHUT_RD);
  }

  void Abort() override {
    MutexLock lock(mu_);
    aborted_ = true;
    if (fd_ >= 0) ::shutdown(fd_, SHUT_RDWR);
  }

  Result LocalAddress(IpAddress* out) const override {
    sockaddr_storage ss;
    socklen_t len = sizeof ss;
    if (::getsockname(fd_, reinterpret_cast<sockaddr*>(&ss), &len) != 0) return Errno();
    *out = FromSockaddr(reinterpret_cast<sockaddr*>(&ss));
    return rc::kOk;
  }

 private:
  Mutex mu_;  // between Abort() on another thread and closing the descriptor
  int fd_ = -1;
  int family_ = 0;
  bool bound_ = false;
  std::atomic<bool> aborted_{false};
};

Result ResolveFamily(const std::string& host, int family, IpAddress* out) {
  addrinfo hints{};
  hints.ai_family = family;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  const int rc = ::getaddrinfo(host.c_str(), nullptr, &hints, &list);
  const int saved = errno;
  if (rc != 0) return SocketErrorFromResolver(rc, saved);
  Result r = rc::kSockNoAddress;
  for (addrinfo* ai = list; ai; ai = ai->ai_next) {
    if (ai->ai_family == family) {
      *out = FromSockaddr(ai->ai_addr);
      r = rc::kOk;
      break;
    }
  }
  ::freeaddrinfo(list);
  return r;
}

// The lookup of a name without a stop: literal, then IPv4, then (with
// kIpv4ThenIpv6) IPv6 when the name has no IPv4 address.
Result ResolveName(const std::string& name, ResolveMode mode, IpAddress* out) {
  const Result r = ResolveFamily(name, AF_INET, out);
  if (r.ok() || mode != ResolveMode::kIpv4ThenIpv6) return r;
  if (r != rc::kSockHostNotFound && r != rc::kSockNoAddress) return r;
  return ResolveFamily(name, AF_INET6, out).ok() ? rc::kOk : r;
}

// A lookup running on a detached thread, handed over through this shared
// state: the thread keeps its own reference, so the state lives until the
// lookup ends even when the waiting side gave up long before.
class Lookup {
 public:
  void Finish(Result r, const IpAddress& address) EXCLUDES(mu_) {
    {
      MutexLock lock(mu_);
      result_ = r;
      address_ = address;
      done_ = true;
    }
    cv_.notify_all();
  }

  // Until the lookup ends, or rc::kAbort as soon as a stop is requested.
  Result Wait(const std::stop_token& stop, IpAddress* out) EXCLUDES(mu_) {
    MutexLock lock(mu_);
    if (!cv_.wait(mu_, stop, [this] { return done_.load(); })) return rc::kAbort;
    if (result_.ok()) *out = address_;
    return result_;
  }

 private:
  Mutex mu_;
  std::condition_variable_any cv_;  // woken by Finish and by a stop request
  std::atomic<bool> done_{false};   // set under mu_
  Result result_ GUARDED_BY(mu_);
  IpAddress address_ GUARDED_BY(mu_);
};

class SystemNetwork final : public Network {
 public:
  using Network::Resolve;

  Result Open(const IpAddress* local, std::unique_ptr<Transport>* out) override {
    auto t = std::make_unique<TcpTransport>();
    if (Result r = t->Create(local ? local->family : AF_INET, local); r.failed()) return r;
    *out = std::move(t);
    return rc::kOk;
  }

  Result Resolve(std::string_view host, ResolveMode mode, std::stop_token stop, IpAddress* out) override {
    if (ParseIpv4Literal(host, out)) return rc::kOk;
    if (mode == ResolveMode::kLiteralOnly) return rc::kSockBadAddress;
    const std::string name(host);
    if (name.empty() || name.find('\0') != std::string::npos) return rc::kSockHostNotFound;
    if (stop.stop_requested()) return rc::kAbort;
    if (!stop.stop_possible()) return ResolveName(name, mode, out);
    // getaddrinfo cannot be interrupted; the wait for it can.
    auto lookup = std::make_shared<Lookup>();
    try {
      std::thread([lookup, name, mode] {
        IpAddress address;
        const Result r = ResolveName(name, mode, &address);
        lookup->Finish(r, address);
      }).detach();
    } catch (const std::system_error&) {
      return ResolveName(name, mode, out);  // no thread to spare: wait here
    }
    return lookup->Wait(stop, out);
  }

  Result NameOf(const IpAddress& address, std::string* name) override {
    sockaddr_storage ss;
    const socklen_t len = ToSockaddr(address, 0, &ss);
    char host[NI_MAXHOST];
    const int rc = ::getnameinfo(reinterpret_cast<sockaddr*>(&ss), len, host, sizeof host, nullptr, 0,
                                 NI_NAMEREQD);
    const int saved = errno;
    if (rc != 0) return SocketErrorFromResolver(rc, saved);
    *name = host;
    return rc::kOk;
  }
};

}  // namespace

Network& Network::System() {
  static SystemNetwork network;
  return network;
}

}  // namespace trv
