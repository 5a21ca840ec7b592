#include "tests/support/script_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

namespace trv::test {

namespace {

constexpr int kStepLimitMs = 10000;

// The connection, plain or TLS.
struct Conn {
  int fd = -1;
  SSL_CTX* ctx = nullptr;
  SSL* ssl = nullptr;

  ~Conn() {
    if (ssl) SSL_free(ssl);
    if (ctx) SSL_CTX_free(ctx);
    if (fd >= 0) ::close(fd);
  }

  bool WaitReadable(int ms) {
    if (ssl && SSL_pending(ssl) > 0) return true;
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, ms) > 0;
  }

  // >0 bytes, 0 closed, <0 error or time-out.
  long Read(char* buf, size_t size) {
    if (!WaitReadable(kStepLimitMs)) return -1;
    if (ssl) {
      const int n = SSL_read(ssl, buf, static_cast<int>(size));
      return n > 0 ? n : (SSL_get_error(ssl, n) == SSL_ERROR_ZERO_RETURN ? 0 : -1);
    }
    return ::recv(fd, buf, size, 0);
  }

  bool Write(const std::string& bytes) {
    if (ssl) return SSL_write(ssl, bytes.data(), static_cast<int>(bytes.size())) == static_cast<int>(bytes.size());
    size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
      if (n <= 0) return false;
      done += static_cast<size_t>(n);
    }
    return true;
  }

  std::string Accept(const CertificateFiles& tls) {
    ctx = SSL_CTX_new(TLS_server_method());
    if (!ctx || SSL_CTX_use_certificate_chain_file(ctx, tls.cert.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(ctx, tls.key.c_str(), SSL_FILETYPE_PEM) != 1) {
      return "the server certificate could not be loaded";
    }
    ssl = SSL_new(ctx);
    SSL_set_fd(ssl, fd);
    if (SSL_accept(ssl) != 1) {
      char text[256];
      ERR_error_string_n(ERR_get_error(), text, sizeof text);
      return std::string("TLS handshake failed: ") + text;
    }
    return {};
  }
};

}  // namespace

ScriptServer::ScriptServer(Script script, CertificateFiles tls) : script_(std::move(script)), tls_(std::move(tls)) {
  listen_fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  if (::bind(listen_fd_, reinterpret_cast<sockaddr*>(&a), len) == 0 && ::listen(listen_fd_, 4) == 0 &&
      ::getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&a), &len) == 0) {
    port_ = ntohs(a.sin_port);
  }
  thread_ = std::thread([this] { Play(); });
}

ScriptServer::~ScriptServer() {
  ::shutdown(listen_fd_, SHUT_RDWR);
  if (thread_.joinable()) thread_.join();
  ::close(listen_fd_);
}

void ScriptServer::Play() {
  auto fail = [this](std::string text) {
    MutexLock lock(mu_);
    if (mismatch_.empty()) mismatch_ = std::move(text);
  };
  pollfd p{listen_fd_, POLLIN, 0};
  if (::poll(&p, 1, kStepLimitMs) <= 0) {
    fail("no client connected");
    return;
  }
  Conn conn;
  sockaddr_in peer{};
  socklen_t plen = sizeof peer;
  conn.fd = ::accept4(listen_fd_, reinterpret_cast<sockaddr*>(&peer), &plen, SOCK_CLOEXEC);
  {
    char text[INET_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET, &peer.sin_addr, text, sizeof text);
    MutexLock lock(mu_);
    peer_ = text;
  }
  const auto& steps = script_.steps();
  for (size_t i = 0; i < steps.size() && conn.fd >= 0; ++i) {
    const Script::Step& s = steps[i];
    const std::string where = "step " + std::to_string(i + 1) + ": ";
    if (s.kind == Script::Step::kServer) {
      if (!conn.Write(s.bytes)) return fail(where + "the client went away before the server could send");
      if (i + 1 < steps.size() && steps[i + 1].kind == Script::Step::kServer) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
      }
    } else if (s.kind == Script::Step::kClient) {
      std::string got;
      char buf[4096];
      while (got.size() < s.bytes.size()) {
        const long n = conn.Read(buf, std::min(sizeof buf, s.bytes.size() - got.size()));
        if (n <= 0) break;
        got.append(buf, static_cast<size_t>(n));
      }
      {
        MutexLock lock(mu_);
        received_ += got;
      }
      if (got != s.bytes) {
        return fail(where + "the client sent " + QuotedBytes(got) + ", the script expects " + QuotedBytes(s.bytes));
      }
    } else if (s.kind == Script::Step::kSilence) {
      char buf[256];
      while (conn.Read(buf, sizeof buf) > 0) {
      }
      break;
    } else if (s.kind == Script::Step::kClose) {
      if (conn.ssl) SSL_shutdown(conn.ssl);
      ::shutdown(conn.fd, SHUT_RDWR);
      break;
    } else if (s.kind == Script::Step::kFail) {
      linger reset{1, 0};
      ::setsockopt(conn.fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
      ::close(conn.fd);  // with a zero linger time: a reset
      conn.fd = -1;
      break;
    } else if (s.kind == Script::Step::kStartTls) {
      if (std::string e = conn.Accept(tls_); !e.empty()) return fail(where + e);
    }
  }
  // Let the client finish reading before the descriptor closes.
  if (conn.fd >= 0) {
    char buf[256];
    ::shutdown(conn.fd, SHUT_WR);
    pollfd q{conn.fd, POLLIN, 0};
    while (::poll(&q, 1, 2000) > 0 && ::recv(conn.fd, buf, sizeof buf, 0) > 0) {
    }
  }
}

std::string ScriptServer::Finish() {
  if (thread_.joinable()) thread_.join();
  MutexLock lock(mu_);
  return mismatch_;
}

std::string ScriptServer::Received() {
  MutexLock lock(mu_);
  return received_;
}

std::string ScriptServer::PeerAddress() {
  MutexLock lock(mu_);
  return peer_;
}

}  // namespace trv::test
