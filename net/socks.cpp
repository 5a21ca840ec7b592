// The SOCKS 4, 4A and 5 handshakes of CMailSocket.

#include "net/mail_socket.h"
#include "net/secret.h"

namespace trv {

namespace {

void AppendPort(std::string* out, uint16_t port) {
  out->push_back(static_cast<char>(port >> 8));
  out->push_back(static_cast<char>(port & 0xFF));
}

}  // namespace

Result CMailSocket::Socks4(std::string_view host, uint16_t port) {
  // SOCKS 4A sends the name only when the client cannot resolve it itself.
  IpAddress address;
  const Result resolved = network_->Resolve(host, ResolveMode::kIpv4, abort_token_, &address);
  if (resolved.failed() && socks_version_ == kSocks4) return resolved;
  const bool send_name = resolved.failed();

  std::string request;
  request.push_back(4);
  request.push_back(1);  // connect
  AppendPort(&request, port);
  if (send_name) {
    // The marker that a name follows: the 32-bit value htons(1) as a
    // little-endian machine stores it, 00 01 00 00 on the wire.
    request.append("\x00\x01\x00\x00", 4);
  } else {
    request.append(reinterpret_cast<const char*>(address.bytes.data()), 4);
  }
  request.append(socks_user_).push_back('\0');
  if (send_name) request.append(host).push_back('\0');
  if (Result r = SendAll(request.data(), request.size()); r.failed()) return r;

  unsigned char reply[8];
  if (Result r = ReceiveExact(reinterpret_cast<char*>(reply), sizeof reply); r.failed()) return r;
  if (reply[0] != 0 && reply[0] != 4) return rc::kSocksBadVersion;
  switch (reply[1]) {
    case 90: return rc::kOk;
    case 91: return rc::kSocksGeneralFailure;
    case 92: return rc::kSocksHostUnreachable;  // no identity server reachable
    case 93: return rc::kSocksAuthRefused;      // the identity server disagrees
    default: return rc::kSocksRefused;
  }
}

Result CMailSocket::Socks5(std::string_view host, uint16_t port) {
  // RFC 1928 section 3: method negotiation; RFC 1929: user name and password.
  const std::string greeting = socks_auth_ ? std::string("\x05\x02\x00\x02", 4) : std::string("\x05\x01\x00", 3);
  if (Result r = SendAll(greeting.data(), greeting.size()); r.failed()) return r;
  unsigned char choice[2];
  if (Result r = ReceiveExact(reinterpret_cast<char*>(choice), sizeof choice); r.failed()) return r;
  if (choice[0] != 5) return rc::kSocksBadVersion;
  if (choice[1] == 0xFF) return rc::kSocksNoMethod;
  // A method that was not offered cannot be spoken.
  if (choice[1] != 0 && !(choice[1] == 2 && socks_auth_)) return rc::kSocksNoMethod;

  if (choice[1] == 2) {
    if (socks_user_.size() > 255 || socks_password_.size() > 255) return rc::kSockInvalidArg;
    std::string auth;
    auth.push_back(1);
    auth.push_back(static_cast<char>(socks_user_.size()));
    auth.append(socks_user_);
    auth.push_back(static_cast<char>(socks_password_.size()));
    auth.append(socks_password_);
    const Result sent = SendAll(auth.data(), auth.size());
    WipeSecret(&auth);
    if (sent.failed()) return sent;
    unsigned char status[2];
    if (Result r = ReceiveExact(reinterpret_cast<char*>(status), sizeof status); r.failed()) return r;
    if (status[0] != 1) return rc::kSocksBadVersion;
    if (status[1] != 0) return rc::kSocksAuthRefused;
  }

  // RFC 1928 section 4: the request; a name (type 3) only when it does not
  // resolve here.
  std::string request("\x05\x01\x00", 3);
  IpAddress address;
  if (network_->Resolve(host, ResolveMode::kIpv4, abort_token_, &address).ok()) {
    request.push_back(1);
    request.append(reinterpret_cast<const char*>(address.bytes.data()), 4);
  } else {
    if (host.size() > 255) return rc::kSockInvalidArg;
    request.push_back(3);
    request.push_back(static_cast<char>(host.size()));
    request.append(host);
  }
  AppendPort(&request, port);
  if (Result r = SendAll(request.data(), request.size()); r.failed()) return r;

  // RFC 1928 section 6: the reply, then the bound address, which is dropped.
  unsigned char reply[4];
  if (Result r = ReceiveExact(reinterpret_cast<char*>(reply), sizeof reply); r.failed()) return r;
  if (reply[0] != 5) return rc::kSocksBadVersion;
  if (reply[1] >= 1 && reply[1] <= 8) return Result(0x80C10000u + reply[1]);
  if (reply[1] != 0) return rc::kSocksRefused;
  char skip[256 + 2];
  size_t rest = 0;
  switch (reply[3]) {
    case 1: rest = 6; break;
    case 3: {
      unsigned char length = 0;
      if (Result r = ReceiveExact(reinterpret_cast<char*>(&length), 1); r.failed()) return r;
      rest = length + 2u;
      break;
    }
    case 4: rest = 18; break;
    default: break;
  }
  if (rest > 0) {
    if (Result r = ReceiveExact(skip, rest); r.failed()) return r;
  }
  Notify(kStateConnected);
  return rc::kOk;
}

}  // namespace trv
