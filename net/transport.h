// The seam under CMailSocket: a small byte-transport interface and the
// network that opens transports and resolves names. The system network speaks
// TCP through POSIX sockets; a scripted network (net/scripted_transport.h)
// plays a transcript so the protocol clients can be tested without a network.
// TLS is layered over any transport by CMailSocket and its TlsEngine.
//
// Threads: a transport is used by one thread at a time, except Abort(), which
// any thread may call to wake a blocked wait. A name lookup is stopped through
// a std::stop_token (CMailSocket::Abort requests the stop).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <stop_token>
#include <string>
#include <string_view>

#include "base/result.h"

namespace trv {

// An IPv4 or IPv6 address (no port).
struct IpAddress {
  int family = 0;  // AF_INET or AF_INET6; 0 = none
  std::array<uint8_t, 16> bytes{};  // network order; IPv4 uses the first 4

  bool is_ipv4() const;
  // Dotted IPv4 or the textual IPv6 form; "" for none.
  std::string ToString() const;
  friend bool operator==(const IpAddress& a, const IpAddress& b) = default;
};

// Reads a dotted IPv4 literal the way inet_addr() does (so "127.1" counts);
// 255.255.255.255 is refused like every other failure. Returns false when the
// text is not a literal.
bool ParseIpv4Literal(std::string_view text, IpAddress* out);

enum class ResolveMode {
  kLiteralOnly,   // a dotted IPv4 literal or nothing (the local address)
  kIpv4,          // literal, else the first IPv4 address of the name (SOCKS targets)
  kIpv4ThenIpv6,  // as kIpv4, falling back to IPv6 when the name has no IPv4 address
};

enum class WaitFor { kRead, kWrite };

// Which directions Transport::Shutdown ends.
enum class ShutdownHow { kSending, kReceiving, kBoth };

class Transport {
 public:
  virtual ~Transport() = default;

  // Starts connecting. kOk when connected at once; rc::kSockInProgress when
  // the caller must wait for writability and then call FinishConnect().
  virtual Result Connect(const IpAddress& address, uint16_t port) = 0;
  virtual Result FinishConnect() = 0;

  // Waits up to timeout_ms for the stream to become readable or writable.
  // *ready is false when the time ran out (or a signal interrupted the wait).
  virtual Result Wait(WaitFor what, int timeout_ms, bool* ready) = 0;

  // One read of at most size bytes. *received == 0 means the peer closed.
  // rc::kSockWouldBlock when nothing can be read after all.
  virtual Result Read(char* buffer, size_t size, size_t* received) = 0;
  // One write; *sent may be less than size. rc::kSockWouldBlock when full.
  virtual Result Write(const char* data, size_t size, size_t* sent) = 0;

  virtual void Shutdown(ShutdownHow how) = 0;
  // Wakes any wait of another thread and makes further I/O fail. Thread-safe.
  virtual void Abort() = 0;

  virtual Result LocalAddress(IpAddress* out) const = 0;

  // A transport that stands in for TLS (the scripted one) takes the upgrade
  // itself and keeps carrying clear bytes; CMailSocket then skips its engine.
  virtual bool TakesTls() const { return false; }
  virtual Result StartTls(std::string_view host) { return rc::kFail; }
};

class Network {
 public:
  virtual ~Network() = default;

  // Creates an unconnected stream, bound to local (port 0) when it is given.
  virtual Result Open(const IpAddress* local, std::unique_ptr<Transport>* out) = 0;

  // Resolves a host name or literal. Failures are 0x80C0 codes:
  // rc::kSockBadAddress for a name in kLiteralOnly mode, else the resolver's.
  // A stop requested on `stop` (before or during the call) ends the wait at
  // once with rc::kAbort; a lookup already under way then finishes on its own
  // and its result is dropped. Implementations say `using Network::Resolve;`.
  virtual Result Resolve(std::string_view host, ResolveMode mode, std::stop_token stop, IpAddress* out) = 0;
  // The same without a way to stop it (the certificate check's lookups).
  Result Resolve(std::string_view host, ResolveMode mode, IpAddress* out) { return Resolve(host, mode, {}, out); }

  // The name the resolver gives for an address (reverse lookup).
  virtual Result NameOf(const IpAddress& address, std::string* name) = 0;

  // The process-wide TCP network. Never null.
  static Network& System();
};

}  // namespace trv
