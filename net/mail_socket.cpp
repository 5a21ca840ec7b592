#include "net/mail_socket.h"

#include <algorithm>
#include <cstring>

#include "net/secret.h"

namespace trv {

namespace {

// Calls step(offset, &moved) until size bytes have moved or a step fails.
template <typename Step>
Result MoveAll(size_t size, Step step) {
  for (size_t done = 0; done < size;) {
    size_t moved = 0;
    if (Result r = step(done, &moved); r.failed()) return r;
    done += moved;
  }
  return rc::kOk;
}
}  // namespace

CMailSocket::CMailSocket() : engine_(std::make_unique<TlsEngine>()), network_(&Network::System()) {
  MutexLock lock(transport_mu_);
  abort_token_ = abort_source_.get_token();
}

CMailSocket::~CMailSocket() {
  Disconnect(false);
  WipeSecret(&socks_password_);
}

void CMailSocket::SetSocks(uint32_t version, std::string_view address, uint16_t port) {
  socks_version_ = version;
  socks_address_ = address;
  socks_port_ = port;
}

void CMailSocket::SetSocksCredentials(bool auth, std::string_view user, std::string_view password) {
  socks_auth_ = auth;
  socks_user_ = user;
  WipeSecret(&socks_password_);
  socks_password_ = password;
}

void CMailSocket::Notify(int state) { Tell(state); }

void CMailSocket::Tell(int state) {
  listeners_.ForEach([&](SocketListener& listener) { listener.OnSocketState(*this, state); });
}

bool CMailSocket::KeepWaiting() { return false; }

void CMailSocket::Abort() {
  MutexLock lock(transport_mu_);
  abort_source_.request_stop();  // also ends the wait for a name lookup
  if (transport_) transport_->Abort();
}

std::string_view CMailSocket::Buffered() const {
  return std::string_view(buffer_).substr(static_cast<size_t>(read_pos_),
                                          static_cast<size_t>(filled_ - read_pos_));
}

void CMailSocket::DropBuffer() {
  buffer_.clear();
  read_pos_ = filled_ = 0;
  need_more_ = false;
}

class CMailSocket::EngineCall {
 public:
  explicit EngineCall(CMailSocket& socket) : s_(socket), outer_(!socket.tls_in_io_) { s_.tls_in_io_ = true; }
  ~EngineCall() {
    if (!outer_) return;
    s_.tls_in_io_ = false;
    if (s_.tls_reset_pending_) {
      s_.tls_reset_pending_ = false;
      s_.engine_->Reset();
    }
  }
  EngineCall(const EngineCall&) = delete;
  EngineCall& operator=(const EngineCall&) = delete;

 private:
  CMailSocket& s_;
  const bool outer_;  // only the outermost call clears the mark and resets
};

template <typename F>
Result CMailSocket::InEngine(F&& call) {
  EngineCall running(*this);
  const Result r = call();
  if (r.failed() && IsSecureTransportError(r)) {
    tls_failed_ = true;
    last_tls_error_ = engine_->last_error();
  }
  return r;
}

// ---------------------------------------------------------------------------
// Connecting and closing

Result CMailSocket::Connect(std::string_view host, uint16_t port) {
  if (aborted()) return rc::kAbort;
  if (connected_) return rc::kOk;
  Disconnect(true);  // a transport left from a failed attempt

  IpAddress local;
  const bool bind_local = !local_address_.empty();
  if (bind_local) {
    if (Result r = network_->Resolve(local_address_, ResolveMode::kLiteralOnly, &local); r.failed()) return r;
  }
  std::unique_ptr<Transport> transport;
  if (Result r = network_->Open(bind_local ? &local : nullptr, &transport); r.failed()) return r;
  {
    // From here on Abort() reaches the transport; before, only the mark.
    MutexLock lock(transport_mu_);
    transport_ = std::move(transport);
  }
  phase_ = Phase::kPlain;
  Result r = ConnectSteps(host, port);
  if (r.failed()) {
    if (aborted()) r = rc::kAbort;  // whatever the abort broke first
    Disconnect(true);
  }
  return r;
}

Result CMailSocket::ConnectSteps(std::string_view host, uint16_t port) {
  if (aborted()) return rc::kAbort;
  Notify(kStateResolving);
  const bool via_socks = socks_version_ != kSocksNone;
  connected_host_ = via_socks ? socks_address_ : std::string(host);
  IpAddress address;
  if (Result r = network_->Resolve(connected_host_, ResolveMode::kIpv4ThenIpv6, abort_token_, &address); r.failed()) {
    return r;
  }

  Notify(kStateConnecting);
  Result r = transport_->Connect(address, via_socks ? socks_port_ : port);
  if (r == rc::kSockInProgress) {
    r = WaitUntil(WaitFor::kWrite, false);
    if (r.ok()) r = transport_->FinishConnect();
  }
  if (r.failed()) return r;
  Notify(kStateConnected);
  connected_ = true;
  DropBuffer();

  if (socks_version_ == kSocks4 || socks_version_ == kSocks4A) {
    r = Socks4(host, port);
  } else if (socks_version_ == kSocks5) {
    r = Socks5(host, port);
  }
  // The certificate check compares with the host the user asked for, also
  // when a proxy stands between.
  connected_host_ = host;
  connected_port_ = port;
  if (r.ok() && !plain_mode_) r = StartTls();
  return r;
}

Result CMailSocket::Close() {
  {
    // Cleared first: an Abort while the close runs counts for what follows.
    // The transport keeps its own abort, so the close does not wait.
    MutexLock lock(transport_mu_);
    if (abort_source_.stop_requested()) {
      abort_source_ = std::stop_source();
      abort_token_ = abort_source_.get_token();
    }
  }
  Disconnect(true);
  return rc::kOk;
}

void CMailSocket::Disconnect(bool orderly) {
  if (closing()) return;  // a read inside the drain below saw the end
  if (transport_ && connected_) {
    const bool tls = tls_active();
    phase_ = tls ? Phase::kTlsClosing : Phase::kClosing;
    orderly ? Notify(kStateClosing) : Tell(kStateClosing);
    if (orderly && tls && !tls_in_io_ && !tls_failed_) InEngine([&] {
      engine_->SendClose(*this);
      return rc::kOk;
    }).Ignore();
    if (transport_) {
      if (orderly && graceful_close_) {
        transport_->Shutdown(ShutdownHow::kSending);
        char piece[kDrainPiece];
        size_t got = 0;
        while (transport_ && Receive(piece, sizeof piece, &got).ok() && got > 0) {
        }
        if (transport_) transport_->Shutdown(ShutdownHow::kReceiving);
      } else {
        transport_->Shutdown(ShutdownHow::kBoth);
      }
    }
    orderly ? Notify(kStateClosed) : Tell(kStateClosed);
  }
  {
    MutexLock lock(transport_mu_);
    transport_.reset();
  }
  DropBuffer();
  connected_ = false;
  phase_ = Phase::kClosed;
  if (tls_in_io_) {
    tls_reset_pending_ = true;
  } else {
    engine_->Reset();
  }
}

// ---------------------------------------------------------------------------
// Waits, raw I/O and the receive buffer

Result CMailSocket::WaitUntil(WaitFor what, bool notify) {
  for (;;) {
    if (aborted()) return rc::kAbort;
    if (!transport_) return rc::kSockNotConnected;
    if (notify) Notify(kStateWaiting);
    bool ready = false;
    if (Result r = transport_->Wait(what, static_cast<int>(timeout_) * 1000, &ready); r.failed()) return r;
    if (ready) return rc::kOk;
    if (!KeepWaiting()) return rc::kSockTimedOut;
  }
}

Result CMailSocket::RawReceive(char* buffer, size_t size, size_t* received) {
  *received = 0;
  for (;;) {
    if (Result r = WaitUntil(WaitFor::kRead, true); r.failed()) return r;
    Notify(kStateReceiving);
    const Result r = transport_->Read(buffer, size, received);
    if (r == rc::kSockWouldBlock) continue;  // readiness was spurious: wait again
    if (aborted()) return rc::kAbort;        // what Abort's shutdown made of the read
    if (r.failed()) return r;
    if (*received == 0) {
      Disconnect(true);
      return rc::kSockClosed;
    }
    Notify(kStateConnected);
    return rc::kOk;
  }
}

Result CMailSocket::FillBuffer() {
  if (aborted()) return rc::kAbort;
  if (!transport_) return rc::kSockNotConnected;
  buffer_.erase(0, static_cast<size_t>(read_pos_));
  read_pos_ = 0;
  filled_ = static_cast<int32_t>(buffer_.size());
  Result r;
  if (tls_active()) {
    // Not inside another engine call (a graceful close that a TLS read ran into).
    if (!engine_->connected() || tls_in_io_) return rc::kSockNotConnected;
    r = InEngine([&] { return engine_->Read(*this, &buffer_); });
    if (r == rc::kSockClosed) Disconnect(true);  // the server ended the TLS session
  } else {
    // Into a piece of its own: a peer that closes makes RawReceive close the
    // socket, which drops (and with a graceful close, reads) the buffer.
    char piece[kFillPiece];
    size_t got = 0;
    r = RawReceive(piece, sizeof piece, &got);
    if (r.ok()) buffer_.append(piece, got);
  }
  filled_ = static_cast<int32_t>(buffer_.size());
  return r;
}

Result CMailSocket::Receive(char* buffer, size_t size, size_t* received) {
  *received = 0;
  if (size == 0) return rc::kSockInvalidArg;
  if (aborted()) return rc::kAbort;
  if (read_pos_ >= filled_) {
    if (Result r = FillBuffer(); r.failed()) return r;
  }
  const size_t n = std::min(size, static_cast<size_t>(filled_ - read_pos_));
  std::memcpy(buffer, buffer_.data() + read_pos_, n);
  read_pos_ += static_cast<int32_t>(n);
  if (read_pos_ >= filled_) {
    buffer_.clear();  // keeps its capacity for the next fill
    read_pos_ = filled_ = 0;
  }
  *received = n;
  return rc::kOk;
}

Result CMailSocket::ReceiveExact(char* buffer, size_t size) {
  if (size == 0) return rc::kSockInvalidArg;
  return MoveAll(size, [&](size_t done, size_t* got) { return Receive(buffer + done, size - done, got); });
}

Result CMailSocket::ReceiveTo(size_t size, const std::function<Result(std::string_view)>& sink) {
  while (size > 0) {
    if (aborted()) return rc::kAbort;
    std::string_view piece;
    char direct[kReceivePiece];
    if (read_pos_ < filled_) {
      piece = Buffered().substr(0, size);
      read_pos_ += static_cast<int32_t>(piece.size());
    } else if (!tls_active()) {
      // Past the buffer, in pieces larger than a fill and never beyond size.
      size_t got = 0;
      if (Result r = RawReceive(direct, std::min(size, sizeof direct), &got); r.failed()) return r;
      piece = std::string_view(direct, got);
    } else {
      if (Result r = FillBuffer(); r.failed()) return r;
      continue;
    }
    size -= piece.size();
    if (Result r = sink(piece); r.failed()) return r;
    if (read_pos_ >= filled_ && filled_ > 0) {
      buffer_.clear();
      read_pos_ = filled_ = 0;
    }
  }
  return rc::kOk;
}

Result CMailSocket::ReadLine(std::string* text) {
  text->clear();
  if (aborted()) return rc::kAbort;
  size_t scanned = 0;  // bytes after the read position known to hold no line end
  for (;;) {
    if (read_pos_ >= filled_ || need_more_) {
      if (Result r = FillBuffer(); r.failed()) return r;
      need_more_ = false;
    }
    const char* base = buffer_.data() + read_pos_;
    const size_t avail = static_cast<size_t>(filled_ - read_pos_);
    size_t end = std::string::npos;
    size_t i = scanned;
    for (; i < avail; ++i) {
      if (base[i] != '\r') continue;
      if (i + 1 == avail) break;  // its LF may come with the next read
      if (base[i + 1] == '\n') {
        end = i;
        break;
      }
      // A CR followed by anything else belongs to the line.
    }
    scanned = i;
    // A final CR is not yet part of the line: a line of exactly the maximum
    // whose LF is late is still fine.
    if (end == std::string::npos ? scanned > max_line_length_ : end > max_line_length_) {
      Disconnect(true);  // the rest of the line would be read as the next one
      return rc::kSockTooLong;
    }
    if (end == std::string::npos) {
      need_more_ = true;
      continue;
    }
    text->assign(base, end);
    read_pos_ += static_cast<int32_t>(end + 2);
    if (read_pos_ >= filled_) {
      buffer_.clear();
      read_pos_ = filled_ = 0;
    }
    ReportLine(kLineReceived, *text == "." ? kLogCommands : line_level_, *text);
    return rc::kOk;
  }
}

Result CMailSocket::PlainSend(const char* buffer, size_t size, size_t* sent) {
  *sent = 0;
  for (;;) {
    if (Result r = WaitUntil(WaitFor::kWrite, true); r.failed()) return r;
    Notify(kStateSending);
    const Result r = transport_->Write(buffer, size, sent);
    if (r == rc::kSockWouldBlock) continue;
    if (r.failed()) return r;
    Notify(kStateConnected);
    return rc::kOk;
  }
}

Result CMailSocket::Send(const char* buffer, size_t size, size_t* sent) {
  *sent = 0;
  if (size == 0) return rc::kSockInvalidArg;
  if (aborted()) return rc::kAbort;
  if (!transport_) return rc::kSockNotConnected;
  if (!tls_active()) return PlainSend(buffer, size, sent);
  if (!engine_->connected()) return rc::kSockNotConnected;
  Result r = InEngine([&] { return engine_->Write(*this, buffer, size); });
  if (r == rc::kTlsFailed) r = rc::kTlsWriteFailed;
  if (r.ok()) *sent = size;
  return r;
}

Result CMailSocket::SendAll(const char* buffer, size_t size) {
  if (size == 0) return rc::kSockInvalidArg;
  if (Result r = MoveAll(size, [&](size_t done, size_t* sent) { return Send(buffer + done, size - done, sent); });
      r.failed()) {
    return r;
  }
  Notify(kStateConnected);
  return rc::kOk;
}

void CMailSocket::ReportLine(LineDirection direction, uint32_t level, std::string_view line) {
  if (!Reports(level)) return;
  line_listeners_.ForEach([&](LineListener& listener) { listener.OnLine(*this, direction, level, line); });
}

Result CMailSocket::SendSecretLine(std::string_view text, std::string_view shown) {
  const std::string_view* outer = shown_line_;
  shown_line_ = &shown;
  const Result r = SendLine(text);
  shown_line_ = outer;
  return r;
}

Result CMailSocket::SendLine(std::string_view text) {
  // Reported before it goes out, so the log shows a command whose send failed.
  if (shown_line_ && !(log_mask_ & kLogCredentials)) {
    const std::string_view shown = *shown_line_;
    shown_line_ = nullptr;  // a SendLine inside a listener is not the secret one
    ReportLine(kLineSent, line_level_, shown);
  } else {
    shown_line_ = nullptr;
    ReportLine(kLineSent, line_level_, text);
  }
  std::string line;
  line.reserve(text.size() + 2);
  line.append(text).append("\r\n");
  return SendAll(line.data(), line.size());
}

// ---------------------------------------------------------------------------
// TLS

Result CMailSocket::SetPlainMode(bool plain) {
  if (plain == plain_mode_) return rc::kOk;
  if (!plain && connected_) {
    if (Result r = StartTls(); r.failed()) return r;
  }
  plain_mode_ = plain;
  return rc::kOk;
}

Result CMailSocket::StartTls() {
  if (aborted()) return rc::kAbort;
  if (!connected_ || !transport_) return rc::kSockNotConnected;
  DropBuffer();
  if (transport_->TakesTls()) {
    const Result r = transport_->StartTls(connected_host_);
    if (r.ok()) phase_ = Phase::kTransportTls;
    return r;
  }
  phase_ = Phase::kTlsHandshake;
  tls_failed_ = false;
  last_tls_error_ = 0;
  TlsEngine::Options options;
  options.versions = tls_versions_;
  options.strong = strong_encryption_;
  options.host = connected_host_;
  // The handshake's records pass through the raw operations.
  const Result r = InEngine([&] { return engine_->Handshake(*this, options); });
  // A close inside the handshake (the server hung up) has left kClosed.
  if (phase_ == Phase::kTlsHandshake) phase_ = r.ok() ? Phase::kTls : Phase::kPlain;
  if (r.failed() && !tls_failed_) {
    tls_failed_ = true;
    last_tls_error_ = engine_->last_error();
  }
  return r;
}

Result CMailSocket::SendRaw(const char* data, size_t size) {
  return MoveAll(size, [&](size_t done, size_t* sent) { return PlainSend(data + done, size - done, sent); });
}

Result CMailSocket::ReceiveRaw(char* buffer, size_t size, size_t* received) {
  return RawReceive(buffer, size, received);
}

bool CMailSocket::CheckCertificate(uint32_t chain_flags, const TlsCertificate& cert) {
  uint32_t flags = chain_flags;
  if (!CertificateMatchesHost(cert, connected_host_, *network_)) flags |= kCertNameMismatch;
  if (flags == 0) return true;
  return certificate_decider_ && certificate_decider_->AcceptCertificate(*this, flags, cert);
}

// ---------------------------------------------------------------------------
// Local host

Result CMailSocket::GetLocalHostName(std::string* name) {
  *name = "localhost";
  IpAddress local;
  std::string resolved;
  if (transport_ && transport_->LocalAddress(&local).ok() && network_->NameOf(local, &resolved).ok()) {
    *name = resolved;
  }
  return rc::kOk;
}

Result CMailSocket::GetLocalAddress(std::string* text) {
  *text = "(unknown)";
  IpAddress local;
  if (transport_ && transport_->LocalAddress(&local).ok()) {
    const std::string dotted = local.ToString();
    if (!dotted.empty()) *text = dotted;
  }
  return rc::kOk;
}

}  // namespace trv
