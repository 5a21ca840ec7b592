// Helpers shared by the net tests.
#pragma once

#include <algorithm>
#include <cstdint>
#include <ostream>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "net/mail_socket.h"
#include "net/transport.h"

namespace trv {
// Results print as their hex codes in test failures.
inline void PrintTo(Result r, std::ostream* os) { *os << ResultHex(r); }
}  // namespace trv

namespace trv::test {

// Records the state codes a socket reports.
struct StateRecorder final : SocketListener {
  std::vector<int> states;
  void OnSocketState(CMailSocket&, int state) override { states.push_back(state); }
  void Attach(CMailSocket& s) { s.AddListener(this); }
  int Count(int state) const { return static_cast<int>(std::count(states.begin(), states.end(), state)); }
};

// Records the certificate questions and answers them with `answer`.
struct Decider final : CertificateDecider {
  bool answer = false;
  std::vector<uint32_t> flags;
  std::string subject;
  bool AcceptCertificate(CMailSocket&, uint32_t flags, const TlsCertificate& cert) override {
    this->flags.push_back(flags);
    subject = cert.Subject();
    return answer;
  }
};

// The system network, except that some names do not resolve: makes the
// "cannot resolve locally" paths of SOCKS deterministic on real sockets.
class NetworkWithout final : public Network {
 public:
  explicit NetworkWithout(std::set<std::string, std::less<>> names) : names_(std::move(names)) {}
  Result Open(const IpAddress* local, std::unique_ptr<Transport>* out) override {
    return Network::System().Open(local, out);
  }
  using Network::Resolve;
  Result Resolve(std::string_view host, ResolveMode mode, std::stop_token stop, IpAddress* out) override;
  Result NameOf(const IpAddress& address, std::string* name) override {
    return Network::System().NameOf(address, name);
  }

 private:
  std::set<std::string, std::less<>> names_;
};

// A port on 127.0.0.1 for as long as the object lives. kRefused: bound, not
// listening, so connections are refused. kSilent: listening with a full
// queue, so a connect stays in progress, unanswered.
class LoopbackPort {
 public:
  enum Kind { kRefused, kSilent };
  explicit LoopbackPort(Kind kind);
  ~LoopbackPort();
  LoopbackPort(const LoopbackPort&) = delete;
  LoopbackPort& operator=(const LoopbackPort&) = delete;
  uint16_t port() const { return port_; }

 private:
  int fd_ = -1, filler_ = -1;
  uint16_t port_ = 0;
};

// Adds the test CA of tests/support/certificates.h to the trust store, once.
void TrustTestCa();

// "(error 0x...)" for a failure, as Line gives it.
std::string Error(Result r);
// The next line, or Error() of the failure.
std::string Line(CMailSocket& s);

// Reads lines until one starts with prefix (that line included). Stops at
// the first failure, which it returns.
Result ReadUntil(CMailSocket& s, std::string_view prefix, std::vector<std::string>* lines);

// Bytes written as hex pairs with one blank between, for readable
// expectations: Hex("04 01 00 6e").
std::string Hex(std::string_view pairs);

}  // namespace trv::test
