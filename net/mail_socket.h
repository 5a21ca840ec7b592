// CMailSocket: the one TCP connection under every protocol client (SMTP, POP3
// and IMAP4 derive from it). It owns its transport (net/transport.h), the
// connection settings (time-out, SOCKS proxy, local address, TLS options), a
// receive buffer with a CR LF line reader, the SOCKS 4, 4A and 5 handshakes,
// and the TLS engine for implicit TLS and for a later STARTTLS/STLS upgrade.
//
// Every operation returns 0 or a code of the families 0x80C0 (socket), 0x80C1
// (SOCKS) or 0x80C5 (secure transport), see net/socket_errors.h; nothing
// throws. A failure inside Connect closes the connection.
//
// Threads: a socket is used by one thread at a time (an account's worker).
// AddListener/RemoveListener and Abort may be called from any thread.
// Listeners are told with no lock held (base/listener_list.h).
//
// Abort: Abort() marks the socket aborted, and only Close() clears the mark.
// While it is set, Connect, StartTls and every read and write fail with
// rc::kAbort at once, also on a socket that is no longer connected; a wait
// in progress (for a name lookup, the TCP connect, data, room to send) ends
// at once with rc::kAbort. So an Abort between the last Close() and the end
// of Connect is never lost: before the transport exists, during the lookup
// or during the connect, that Connect returns rc::kAbort (and closes what it
// opened). The caller ends its run and calls Close() before it reuses the
// socket.
//
// Closing: Close() is the caller's. The socket closes itself (without
// calling Close(), so without an override of it, and keeping the abort mark)
// when Connect fails, when the peer ends the connection, and when a line is
// too long. The destructor closes at once through a private routine: no
// virtual call, no graceful drain and no TLS closing alert; the listeners
// still hear kStateClosing and kStateClosed. A client that overrides Close()
// calls it from its own destructor; one that wants an orderly end calls
// Close() before destroying the socket.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <stop_token>
#include <string>
#include <string_view>

#include "base/listener_list.h"
#include "base/result.h"
#include "base/thread_annotations.h"
#include "net/certificate_check.h"
#include "net/socket_errors.h"
#include "net/tls_engine.h"
#include "net/transport.h"

namespace trv {

// State codes given to Notify.
enum SocketState : int {
  kStateResolving = 0,
  kStateConnecting = 1,
  kStateConnected = 2,  // connected and idle: after connect, SOCKS, each receive or send
  kStateSending = 3,
  kStateReceiving = 4,
  kStateWaiting = 5,    // waiting for the socket to become ready
  kStateClosing = 6,
  kStateClosed = 7,
};

// SOCKS versions as the settings store them.
inline constexpr uint32_t kSocksNone = 0;
inline constexpr uint32_t kSocks4 = 1;
inline constexpr uint32_t kSocks4A = 2;
inline constexpr uint32_t kSocks5 = 3;

class CMailSocket;

// Told every state change of a socket (SocketState codes), on the socket's
// thread. A program that must keep a device awake during transfers resets
// its idle timer from here.
class SocketListener {
 public:
  virtual ~SocketListener() = default;
  virtual void OnSocketState(CMailSocket& socket, int state) = 0;
};

// Direction of a protocol line told to LineListeners.
enum LineDirection : int { kLineSent = 0, kLineReceived = 1 };

// Log levels of protocol lines. A line reaches the LineListeners only when
// the socket's log mask holds its level. Clients add their own levels from
// 4 up (the POP3 listings, message lines, CAPA lines).
inline constexpr uint32_t kLogCommands = 1;     // commands, status and reply lines
inline constexpr uint32_t kLogCredentials = 2;  // user names, passwords and AUTH answers as sent

// Told every protocol line sent or received whose level is in the socket's
// log mask, on the socket's thread; the line has no CR LF. A line that
// carries a credential arrives masked ("********" in place of the secret)
// unless the mask holds kLogCredentials. The activity log's "S " and "R "
// lines come from here.
class LineListener {
 public:
  virtual ~LineListener() = default;
  virtual void OnLine(CMailSocket& socket, LineDirection direction, uint32_t level, std::string_view line) = 0;
};

// Asked when the server certificate carries flags (net/certificate_check.h);
// true accepts it. Runs on the socket's thread during the handshake.
class CertificateDecider {
 public:
  virtual ~CertificateDecider() = default;
  virtual bool AcceptCertificate(CMailSocket& socket, uint32_t flags, const TlsCertificate& certificate) = 0;
};

class CMailSocket : private TlsEngine::Channel {
 public:

  static constexpr uint16_t kDefaultTimeout = 60;    // seconds
  static constexpr uint16_t kDefaultSocksPort = 1080;
  static constexpr size_t kFillPiece = 1024;         // bytes read into the buffer at a time
  static constexpr size_t kDrainPiece = 2048;        // bytes read at a time by a graceful close
  static constexpr size_t kReceivePiece = 16 * 1024; // bytes ReceiveTo reads at a time in the clear
  static constexpr size_t kDefaultMaxLineLength = 1024 * 1024;

  CMailSocket();
  CMailSocket(const CMailSocket&) = delete;
  CMailSocket& operator=(const CMailSocket&) = delete;

  // Virtual operations, in their fixed order. Protocol clients override the
  // destructor and Connect, and append their own.
  virtual ~CMailSocket();  // closes at once, see "Closing" above
  // Connects to host (a name or dotted IPv4) and port, through the SOCKS
  // proxy when one is set, then runs the TLS handshake when the plain-mode
  // flag is false. Returns 0 at once when already connected; rc::kAbort when
  // aborted (see above).
  virtual Result Connect(std::string_view host, uint16_t port);
  // Always returns 0. Notifies closing and closed when it was connected;
  // with the graceful flag, reads what the server still sends first. Clears
  // the abort mark.
  virtual Result Close();
  // One waited read from the transport. The peer closing the connection
  // closes the socket and gives rc::kSockClosed.
  virtual Result RawReceive(char* buffer, size_t size, size_t* received);
  // Brings more bytes into the receive buffer, plain or through TLS.
  virtual Result FillBuffer();
  // Up to size bytes from the receive buffer (filling it when empty).
  virtual Result Receive(char* buffer, size_t size, size_t* received);
  virtual Result ReceiveExact(char* buffer, size_t size);
  // One line without its CR LF. A CR not followed by LF stays in the line.
  // A line longer than the maximum line length fails with rc::kSockTooLong
  // as soon as the buffer holds more than the maximum without a line end,
  // so at most about the maximum (plus one read) is ever held; the socket
  // then closes itself, since the rest of that line would be taken for the
  // next reply.
  virtual Result ReadLine(std::string* text);
  // One waited send, or one TLS write of every byte.
  virtual Result Send(const char* buffer, size_t size, size_t* sent);
  virtual Result SendAll(const char* buffer, size_t size);
  // The text and CR LF in one SendAll.
  virtual Result SendLine(std::string_view text);
  // Asked when a wait times out; true waits another period. False here.
  virtual bool KeepWaiting();
  // Tells every listener, in the order they were added.
  virtual void Notify(int state);

  // Hands exactly size bytes to sink in pieces as they arrive, the bytes
  // already buffered first, without ever holding them all (IMAP4 literals).
  // The pieces are only valid during the call; the sink must not call this
  // socket. A sink failure ends the transfer with the sink's code (the rest
  // of the bytes stay unread: the stream is then out of step). Size 0 hands
  // nothing and returns 0.
  Result ReceiveTo(size_t size, const std::function<Result(std::string_view)>& sink);

  // false while connected runs StartTls() at once and returns its failure
  // (the flag keeps its old value then); otherwise the flag is stored. Before
  // Connect: false means implicit TLS right after the TCP connect.
  Result SetPlainMode(bool plain);
  // The TLS handshake on the connected socket. Bytes received in the clear
  // and not yet read are dropped first: they were never protected.
  Result StartTls();
  // Strong encryption offers only cipher suites with keys of 128 bits or more.
  void SetStrongEncryption(bool strong) { strong_encryption_ = strong; }
  // "localhost", or the name the resolver gives for the local address.
  Result GetLocalHostName(std::string* name);
  // "(unknown)", or the local address in dotted form.
  Result GetLocalAddress(std::string* text);

  // Sets the abort mark (see "Abort" above) and ends any wait of this
  // socket at once. Any thread; never blocks on a lookup or on the network.
  void Abort() EXCLUDES(transport_mu_);

  // Listeners, not owned; told in the order they were added. Any thread.
  // After RemoveListener returns, the listener may be destroyed.
  void AddListener(SocketListener* listener) { listeners_.Add(listener); }
  void RemoveListener(SocketListener* listener) { listeners_.Remove(listener); }

  // Protocol-line listeners, not owned; any thread, as above.
  void AddLineListener(LineListener* listener) { line_listeners_.Add(listener); }
  void RemoveLineListener(LineListener* listener) { line_listeners_.Remove(listener); }
  // Which levels are reported (kLogCommands by default; clients set their own).
  void SetLogMask(uint32_t mask) { log_mask_ = mask; }
  uint32_t log_mask() const { return log_mask_; }

  // Settings; take effect at the next Connect (the time-out at once).
  void SetTimeout(uint16_t seconds) { timeout_ = seconds; }
  // The longest line ReadLine gives out; 0 (or less) restores
  // kDefaultMaxLineLength. There is always a bound.
  void SetMaxLineLength(int32_t bytes) {
    max_line_length_ = bytes > 0 ? static_cast<size_t>(bytes) : kDefaultMaxLineLength;
  }
  void SetGracefulClose(bool graceful) { graceful_close_ = graceful; }
  void SetLocalAddress(std::string_view dotted) { local_address_ = dotted; }  // "" = any
  void SetSocks(uint32_t version, std::string_view address, uint16_t port);
  // User name and password for SOCKS 5 (offered when auth is true); the user
  // ID alone is sent by SOCKS 4 and 4A.
  void SetSocksCredentials(bool auth, std::string_view user, std::string_view password);
  void SetTlsVersions(uint32_t bits) { tls_versions_ = bits; }
  // Not owned; must outlive the socket or be replaced first. Null: every
  // flagged certificate is refused.
  void SetCertificateDecider(CertificateDecider* decider) { certificate_decider_ = decider; }
  // The network to open connections through; not owned, must outlive the
  // socket. Defaults to Network::System().
  void SetNetwork(Network* network) { network_ = network; }

  bool connected() const { return connected_; }
  size_t max_line_length() const { return max_line_length_; }
  bool plain_mode() const { return plain_mode_; }
  uint16_t timeout() const { return timeout_; }
  const std::string& connected_host() const { return connected_host_; }
  uint16_t connected_port() const { return connected_port_; }  // the port given to Connect
  // The engine code of the last TLS failure (0 none) and OpenSSL's text of
  // it, for the activity log; the negotiated protocol and cipher.
  bool tls_failed() const { return tls_failed_; }
  uint32_t last_tls_error() const { return last_tls_error_; }
  const std::string& tls_error_detail() const { return engine_->error_detail(); }
  std::string TlsProtocol() const { return engine_->Protocol(); }
  std::string TlsCipher() const { return engine_->Cipher(); }
  // The server's certificate after a handshake (null before one).
  std::unique_ptr<TlsCertificate> TlsPeerCertificate() const { return engine_->PeerCertificate(); }

 protected:
  // The bytes received and not yet read.
  std::string_view Buffered() const;

  // Lines sent and read while a LineLevel lives are reported at its level
  // (kLogCommands otherwise). A lone "." (the end of a listing) is always
  // reported at kLogCommands.
  class LineLevel {
   public:
    LineLevel(CMailSocket& socket, uint32_t level) : s_(socket), previous_(socket.line_level_) {
      s_.line_level_ = level;
    }
    ~LineLevel() { s_.line_level_ = previous_; }
    LineLevel(const LineLevel&) = delete;
    LineLevel& operator=(const LineLevel&) = delete;

   private:
    CMailSocket& s_;
    const uint32_t previous_;
  };
  // Sends text as a line that carries a credential: reported as shown (the
  // line with its secret replaced by "********") unless the log mask holds
  // kLogCredentials, then as it is.
  Result SendSecretLine(std::string_view text, std::string_view shown);
  // Tells the line listeners a line at level when the log mask holds it.
  // SendLine and ReadLine call it; a client calls it for a line it makes up.
  void ReportLine(LineDirection direction, uint32_t level, std::string_view line);
  // Whether a line of this level would be reported (to skip building it).
  bool Reports(uint32_t level) const { return (log_mask_ & level) != 0 && line_listeners_.size() != 0; }

 private:
  // TlsEngine::Channel: the engine's records go through the waited raw I/O.
  Result SendRaw(const char* data, size_t size) override;
  Result ReceiveRaw(char* buffer, size_t size, size_t* received) override;
  bool CheckCertificate(uint32_t chain_flags, const TlsCertificate& cert) override;

  // The closing work of Close(), Connect's failures, the peer's end and the
  // destructor. orderly: notify through Notify(), send the TLS closing alert
  // and drain when graceful; otherwise (the destructor) no virtual call and
  // no wait. Leaves the abort mark alone.
  void Disconnect(bool orderly);
  void Tell(int state);  // the listeners, without the virtual Notify
  // The abort mark, as the socket's own thread sees it.
  bool aborted() const { return abort_token_.stop_requested(); }
  Result ConnectSteps(std::string_view host, uint16_t port);  // Connect after the transport exists
  Result WaitUntil(WaitFor what, bool notify);
  Result PlainSend(const char* buffer, size_t size, size_t* sent);
  Result Socks4(std::string_view host, uint16_t port);
  Result Socks5(std::string_view host, uint16_t port);
  // What the connection is doing now, beyond the named fields.
  enum class Phase {
    kClosed,        // no transport
    kPlain,         // clear bytes (also while connecting and through SOCKS)
    kTlsHandshake,  // StartTls is running the engine's handshake
    kTls,           // the handshake succeeded; traffic goes through the engine
    kTransportTls,  // the transport took the upgrade and carries clear bytes (scripted)
    kClosing,       // Close() is running; a read inside it does not close again
    kTlsClosing,    // the same, while TLS records are still read through the engine
  };
  // Marks an engine call as running for its scope (tls_in_io_), records a
  // secure-transport failure, and on exit carries out an engine reset that
  // Close() asked for meanwhile (tls_reset_pending_).
  class EngineCall;
  template <typename F>
  Result InEngine(F&& call);
  bool tls_active() const { return phase_ == Phase::kTls || phase_ == Phase::kTlsClosing; }
  bool closing() const { return phase_ == Phase::kClosing || phase_ == Phase::kTlsClosing; }
  void DropBuffer();

  // Fields in their fixed order.
  ListenerList<SocketListener> listeners_;
  std::string buffer_;
  int32_t read_pos_ = 0;
  int32_t filled_ = 0;
  bool need_more_ = false;
  bool connected_ = false;
  bool graceful_close_ = false;
  std::string local_address_;
  Mutex transport_mu_;  // between Abort() and replacing the transport or the abort mark
  // The socket handle; null when closed. Replaced only on the socket's
  // thread, which may read it without the lock; Abort() reads it under it.
  std::unique_ptr<Transport> transport_;
  std::string connected_host_;
  uint16_t connected_port_ = 0;
  bool socks_auth_ = false;
  std::string socks_address_;
  std::string socks_password_;
  std::string socks_user_;
  bool plain_mode_ = true;
  std::unique_ptr<TlsEngine> engine_;
  uint32_t tls_versions_ = kTlsDefaultVersions;
  bool tls_failed_ = false;
  bool tls_in_io_ = false;          // an engine call is running (EngineCall)
  bool tls_reset_pending_ = false;  // Close() ran inside an engine call; EngineCall resets after it
  uint32_t last_tls_error_ = 0;
  uint32_t socks_version_ = kSocksNone;
  size_t max_line_length_ = kDefaultMaxLineLength;
  uint16_t timeout_ = kDefaultTimeout;
  uint16_t socks_port_ = kDefaultSocksPort;
  CertificateDecider* certificate_decider_ = nullptr;

  // Additions of this implementation.
  ListenerList<LineListener> line_listeners_;
  uint32_t log_mask_ = kLogCommands;
  uint32_t line_level_ = kLogCommands;
  const std::string_view* shown_line_ = nullptr;  // set by SendSecretLine for its SendLine
  Network* network_;
  bool strong_encryption_ = false;
  Phase phase_ = Phase::kClosed;
  // Abort() requests a stop here; Close() replaces a stopped source. The
  // socket's thread reads the mark through abort_token_, which only it
  // touches outside Close().
  std::stop_source abort_source_ GUARDED_BY(transport_mu_);
  std::stop_token abort_token_;
};

}  // namespace trv
