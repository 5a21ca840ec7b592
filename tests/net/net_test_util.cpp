#include "tests/net/net_test_util.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <mutex>

#include "tests/support/certificates.h"

namespace trv::test {

LoopbackPort::LoopbackPort(Kind kind) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  if (::bind(fd_, reinterpret_cast<sockaddr*>(&a), len) != 0 ||
      ::getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
    return;
  }
  port_ = ntohs(a.sin_port);
  if (kind == kRefused) return;
  ::listen(fd_, 0);
  filler_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ::connect(filler_, reinterpret_cast<sockaddr*>(&a), len);  // the one connection the queue holds
}

LoopbackPort::~LoopbackPort() {
  if (filler_ >= 0) ::close(filler_);
  ::close(fd_);
}

Result NetworkWithout::Resolve(std::string_view host, ResolveMode mode, std::stop_token stop, IpAddress* out) {
  if (names_.count(host)) return rc::kSockHostNotFound;
  return Network::System().Resolve(host, mode, std::move(stop), out);
}

void TrustTestCa() {
  static std::once_flag once;
  std::call_once(once, [] {
    std::string error;
    if (const TestCertificates* certs = Certificates(&error)) {
      TlsEngine::AddTrustedCertificates(certs->ca.cert.string()).Ignore();
    }
  });
}

std::string Error(Result r) { return "(error " + ResultHex(r) + ")"; }

std::string Line(CMailSocket& s) {
  std::string line;
  const Result r = s.ReadLine(&line);
  return r.ok() ? line : Error(r);
}

Result ReadUntil(CMailSocket& s, std::string_view prefix, std::vector<std::string>* lines) {
  lines->clear();
  std::string line;
  for (;;) {
    if (Result r = s.ReadLine(&line); r.failed()) return r;
    lines->push_back(line);
    if (line.compare(0, prefix.size(), prefix) == 0) return rc::kOk;
  }
}

std::string Hex(std::string_view pairs) {
  std::string bytes;
  for (size_t i = 0; i + 1 < pairs.size(); i += 3) {
    bytes.push_back(static_cast<char>(std::stoi(std::string(pairs.substr(i, 2)), nullptr, 16)));
  }
  return bytes;
}

}  // namespace trv::test
