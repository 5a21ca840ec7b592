// Bulk receive through CMailSocket on loopback, plain and TLS, beside bare
// read loops on a plain socket (recv) and on TLS (SSL_read) in the same run;
// and the cost of ReadLine per line beside a bare line splitter.
//
//   socket_bench [MiB per run, default 64] [runs, default 3]
//
// A sender thread serves each run on 127.0.0.1: 78-byte lines (76 characters
// and CR LF, like a base64 body) until the size is reached, then it closes.
// Figures are medians of the runs.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "net/mail_socket.h"
#include "tests/support/certificates.h"

namespace {

using trv::CMailSocket;
using trv::Result;
using Clock = std::chrono::steady_clock;

constexpr size_t kLine = 78;

std::string Chunk() {
  std::string chunk;
  const char* alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  while (chunk.size() + kLine <= 1024 * kLine) {
    for (size_t i = 0; i < kLine - 2; ++i) chunk += alphabet[(chunk.size() * 7 + i) % 64];
    chunk += "\r\n";
  }
  return chunk;
}

// Serves one connection with total bytes of lines, plain or TLS.
class Sender {
 public:
  Sender(size_t total, SSL_CTX* tls) : total_(total), tls_(tls) {
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    ::bind(fd_, reinterpret_cast<sockaddr*>(&a), len);
    ::listen(fd_, 1);
    ::getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len);
    port_ = ntohs(a.sin_port);
    thread_ = std::thread([this] { Serve(); });
  }
  ~Sender() {
    thread_.join();
    ::close(fd_);
  }
  uint16_t port() const { return port_; }

 private:
  void Serve() {
    const int c = ::accept(fd_, nullptr, nullptr);
    static const std::string chunk = Chunk();
    SSL* ssl = nullptr;
    if (tls_) {
      ssl = SSL_new(tls_);
      SSL_set_fd(ssl, c);
      if (SSL_accept(ssl) != 1) {
        std::fprintf(stderr, "sender: TLS handshake failed\n");
        SSL_free(ssl);
        ::close(c);
        return;
      }
    }
    size_t sent = 0;
    while (sent < total_) {
      const size_t n = std::min(chunk.size(), total_ - sent);
      if (ssl) {
        if (SSL_write(ssl, chunk.data(), static_cast<int>(n)) <= 0) break;
      } else {
        size_t done = 0;
        while (done < n) {
          const ssize_t w = ::send(c, chunk.data() + done, n - done, MSG_NOSIGNAL);
          if (w <= 0) break;
          done += static_cast<size_t>(w);
        }
      }
      sent += n;
    }
    if (ssl) {
      SSL_shutdown(ssl);
      SSL_free(ssl);
    }
    ::shutdown(c, SHUT_WR);
    char drain[256];
    while (::recv(c, drain, sizeof drain, 0) > 0) {
    }
    ::close(c);
  }

  size_t total_;
  SSL_CTX* tls_;
  int fd_ = -1;
  uint16_t port_ = 0;
  std::thread thread_;
};

int ConnectBare(uint16_t port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
    std::perror("connect");
    std::exit(1);
  }
  return fd;
}

// Each measure receives everything and returns the byte or line count.
using Measure = std::function<size_t(uint16_t port)>;

size_t BareRecv(uint16_t port) {
  const int fd = ConnectBare(port);
  std::vector<char> buf(64 * 1024);
  size_t total = 0;
  ssize_t n;
  while ((n = ::recv(fd, buf.data(), buf.size(), 0)) > 0) total += static_cast<size_t>(n);
  ::close(fd);
  return total;
}

size_t BareSslRead(uint16_t port) {
  static SSL_CTX* ctx = SSL_CTX_new(TLS_client_method());
  const int fd = ConnectBare(port);
  SSL* ssl = SSL_new(ctx);
  SSL_set_fd(ssl, fd);
  if (SSL_connect(ssl) != 1) {
    std::fprintf(stderr, "bare TLS handshake failed\n");
    std::exit(1);
  }
  std::vector<char> buf(64 * 1024);
  size_t total = 0;
  int n;
  while ((n = SSL_read(ssl, buf.data(), static_cast<int>(buf.size()))) > 0) total += static_cast<size_t>(n);
  SSL_free(ssl);
  ::close(fd);
  return total;
}

size_t SocketReceive(uint16_t port, bool tls) {
  CMailSocket s;
  s.SetTimeout(10);
  if (tls) s.SetPlainMode(false).Ignore();
  if (Result r = s.Connect("localhost", port); r.failed()) {
    std::fprintf(stderr, "CMailSocket connect: %s %s\n", trv::ResultHex(r).c_str(), s.tls_error_detail().c_str());
    std::exit(1);
  }
  std::vector<char> buf(64 * 1024);
  size_t total = 0, got = 0;
  while (s.Receive(buf.data(), buf.size(), &got).ok()) total += got;
  return total;
}

size_t BareLines(uint16_t port) {
  // A recv loop that splits at CR LF with memchr and copies each line out.
  const int fd = ConnectBare(port);
  std::vector<char> buf(64 * 1024);
  std::string pending, line;
  size_t lines = 0;
  ssize_t n;
  while ((n = ::recv(fd, buf.data(), buf.size(), 0)) > 0) {
    pending.append(buf.data(), static_cast<size_t>(n));
    size_t start = 0;
    while (const void* p = std::memchr(pending.data() + start, '\n', pending.size() - start)) {
      const size_t end = static_cast<const char*>(p) - pending.data();
      line.assign(pending, start, end - start - 1);
      ++lines;
      start = end + 1;
    }
    pending.erase(0, start);
  }
  ::close(fd);
  return lines;
}

size_t SocketLines(uint16_t port) {
  CMailSocket s;
  s.SetTimeout(10);
  if (s.Connect("127.0.0.1", port).failed()) std::exit(1);
  std::string line;
  size_t lines = 0;
  while (s.ReadLine(&line).ok()) ++lines;
  return lines;
}

struct Figure {
  double seconds;
  size_t count;
};

Figure Run(const Measure& measure, size_t total, SSL_CTX* tls) {
  Sender sender(total, tls);
  const auto start = Clock::now();
  const size_t count = measure(sender.port());
  return {std::chrono::duration<double>(Clock::now() - start).count(), count};
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  const size_t mib = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 64;
  const int runs = argc > 2 ? std::atoi(argv[2]) : 3;
  const size_t total = mib * 1024 * 1024;

  std::string error;
  const trv::test::TestCertificates* certs = trv::test::Certificates(&error);
  if (!certs) {
    std::fprintf(stderr, "socket_bench: %s\n", error.c_str());
    return 1;
  }
  trv::TlsEngine::AddTrustedCertificates(certs->ca.cert.string()).Ignore();
  SSL_CTX* server = SSL_CTX_new(TLS_server_method());
  SSL_CTX_use_certificate_chain_file(server, certs->server.cert.c_str());
  SSL_CTX_use_PrivateKey_file(server, certs->server.key.c_str(), SSL_FILETYPE_PEM);

  struct Row {
    const char* name;
    Measure measure;
    bool tls;
    bool lines;
    std::vector<double> seconds;
    size_t count = 0;
  };
  std::vector<Row> rows = {
      {"bare recv loop, 64 KiB reads", BareRecv, false, false, {}},
      {"CMailSocket::Receive", [](uint16_t p) { return SocketReceive(p, false); }, false, false, {}},
      {"bare SSL_read loop, 64 KiB reads", BareSslRead, true, false, {}},
      {"CMailSocket::Receive over TLS", [](uint16_t p) { return SocketReceive(p, true); }, true, false, {}},
      {"bare recv + memchr line splitter", BareLines, false, true, {}},
      {"CMailSocket::ReadLine", SocketLines, false, true, {}},
  };
  // Interleaved runs, so that the machine's other load falls on all rows alike.
  for (int run = 0; run < runs; ++run) {
    for (Row& row : rows) {
      const Figure f = Run(row.measure, total, row.tls ? server : nullptr);
      row.seconds.push_back(f.seconds);
      row.count = f.count;
    }
  }

  std::printf("socket_bench: loopback, %zu MiB of %zu-byte lines per run, median of %d runs\n", mib, kLine, runs);
  std::printf("\nBulk receive\n");
  const double bare_plain = total / Median(rows[0].seconds) / 1e6;
  const double bare_tls = total / Median(rows[2].seconds) / 1e6;
  for (int i = 0; i < 4; ++i) {
    const double mbps = total / Median(rows[i].seconds) / 1e6;
    std::printf("  %-36s %8.0f MB/s", rows[i].name, mbps);
    if (i == 1) std::printf("   %.2f x bare recv", mbps / bare_plain);
    if (i == 3) std::printf("   %.2f x bare SSL_read, %.2f x bare recv", mbps / bare_tls, mbps / bare_plain);
    if (rows[i].count != total) std::printf("   (received %zu bytes!)", rows[i].count);
    std::printf("\n");
  }
  std::printf("\nLine reading\n");
  const double bare_ns = Median(rows[4].seconds) * 1e9 / rows[4].count;
  for (int i = 4; i < 6; ++i) {
    const double ns = Median(rows[i].seconds) * 1e9 / rows[i].count;
    std::printf("  %-36s %8.1f ns/line (%zu lines)", rows[i].name, ns, rows[i].count);
    if (i == 5) std::printf("   %.2f x the bare splitter's time", ns / bare_ns);
    std::printf("\n");
  }
  SSL_CTX_free(server);
  return 0;
}
