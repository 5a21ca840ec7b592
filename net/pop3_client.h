// CPop3Client: the client side of POP3 on a CMailSocket. Connect reads the
// greeting (with its APOP time stamp), CAPA and the AUTH listing; StartTls
// upgrades with STLS; Login tries AUTH, USER/PASS or APOP in a fixed order;
// then STAT, LIST, UIDL, RETR, TOP, DELE, NOOP, RSET and QUIT.
//
// Return codes: 0, a code of net/pop3_errors.h (family 0x80C2) when the
// server refuses or answers what cannot be read, a SASL code (0x80E1) when
// an AUTH exchange fails on the client's side, or the transport's codes
// (0x80C0, 0x80C1, 0x80C5) as they are. A refused command, a listing line
// that does not parse and a hook failure leave the connection usable: the
// listing is read to its end first. last_reply() holds the server's last
// status line after a failure, and is empty after a success.
//
// Streaming: multi-line answers are never held whole. Every line of a
// listing or message goes to OnList, OnUidl or OnMessageLine as it arrives;
// the lines are bounded by the socket's maximum line length, a listing that
// never ends by the time-out or the peer's close.
//
// Logging goes through the socket's line listeners and log mask (initial 13:
// commands and status lines, LIST and UIDL listings). USER, PASS and AUTH
// answers are shown masked unless the mask holds kLogCredentials.
//
// Threads: one thread at a time (the account's worker), like CMailSocket;
// hooks are called on it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/result.h"
#include "net/mail_socket.h"
#include "net/pop3_errors.h"
#include "net/pop3_status.h"
#include "net/sasl.h"

namespace trv {

// Log levels of the POP3 listings (with kLogCommands and kLogCredentials).
inline constexpr uint32_t kPop3LogList = 4;
inline constexpr uint32_t kPop3LogUidl = 8;
inline constexpr uint32_t kPop3LogMessage = 32;
inline constexpr uint32_t kPop3LogCapa = 64;
inline constexpr uint32_t kPop3LogAuth = 128;
inline constexpr uint32_t kPop3InitialLogMask = kLogCommands | kPop3LogList | kPop3LogUidl;

// Where the lines of listings and messages go (the synchronization run
// stores them). A failure stops further calls for the current command, which
// reads its answer to the end and returns the first failure.
class Pop3LineHandler {
 public:
  virtual ~Pop3LineHandler() = default;
  virtual Result OnUidl(uint32_t number, std::string_view uid) { return rc::kOk; }
  // One line of a message without CR LF, dot-unstuffed (a leading ".." loses
  // one dot: "..x" is ".x", ".." is "."); valid
  // only during the call.
  virtual Result OnMessageLine(std::string_view line) { return rc::kOk; }
  virtual Result OnList(uint32_t number, uint64_t size) { return rc::kOk; }
};

class CPop3Client : public CMailSocket {
 public:
  CPop3Client();
  ~CPop3Client() override;  // wipes the password

  // TCP (SOCKS, implicit TLS) and the greeting: "-" gives rc::kPop3Greeting,
  // anything but "+" rc::kPop3Malformed. Then CAPA, and the AUTH listing when
  // CAPA lists SASL; their refusal (rc::kPop3Unsupported) is not a failure.
  // Any failure closes the connection. Returns 0 at once when connected.
  Result Connect(std::string_view host, uint16_t port) override;

  // "CAPA": the capability bits are replaced by those of the listing.
  Result Capa();
  // "AUTH" alone: the recognised mechanism names are added to the SASL bits.
  Result AuthList();
  // "STLS", then the TLS handshake. As the server's capabilities may differ
  // under TLS, CAPA (and the AUTH listing) are read again.
  Result StartTls();
  // Logs in with the user name and password set before (see the order in
  // the .cpp). rc::kPop3Login when nothing could be tried or the server
  // refused; a transport failure ends the attempts at once.
  Result Login();
  // The methods Login chooses from, each on its own (refused: rc::kPop3Login).
  // "USER", then "PASS".
  Result LoginUserPass();
  // "APOP" with the MD5 digest of the greeting's time stamp and the password;
  // without a time stamp nothing is sent.
  Result LoginApop();
  // "AUTH" and the exchange of one mechanism bit (net/sasl.h); a SASL step
  // that fails sends "*" and gives the SASL code.
  Result LoginSasl(uint32_t mechanism);

  Result Stat(uint32_t* count, uint64_t* size);
  Result List(uint32_t number, uint64_t* size);
  Result ListAll();  // OnList per line
  Result Uidl(uint32_t number, std::string* uid);
  Result UidlAll();  // OnUidl per line
  Result Retrieve(uint32_t number);  // OnMessageLine per line
  Result Top(uint32_t number, uint32_t lines);
  Result Delete(uint32_t number);
  Result Noop();
  Result Reset();
  // "QUIT", then closes whatever the answer. A refusal (the server could not
  // remove the deleted messages) gives rc::kPop3Refused.
  Result Quit();

  // Appended virtual operations, after those of CMailSocket. Each forwards
  // to the line handler, if any.
  virtual Result OnUidl(uint32_t number, std::string_view uid);
  virtual Result OnMessageLine(std::string_view line);
  virtual Result OnList(uint32_t number, uint64_t size);

  // Not owned; must outlive its use. Null: lines are dropped.
  void SetLineHandler(Pop3LineHandler* handler) { handler_ = handler; }
  void SetCredentials(std::string_view user, std::string_view password);
  // The account's choice of secure login (CRAM-MD5 and APOP only).
  void SetUseSasl(bool use) { use_sasl_ = use; }

  const std::string& last_reply() const { return last_reply_; }
  uint32_t capabilities() const { return capabilities_; }
  uint32_t sasl_mechanisms() const { return sasl_mechanisms_; }
  const std::string& apop_timestamp() const { return apop_timestamp_; }

 private:
  // Reads a status line into status_line_; "+" gives 0 and *text what
  // follows the status word (last_reply_ emptied); otherwise last_reply_ is
  // the line and the result refused ("-") or rc::kPop3Malformed.
  Result ReadStatus(Result refused, std::string* text = nullptr);
  Result Command(std::string_view line, Result refused, std::string* text = nullptr);
  // Reads the lines of a listing up to ".", at level, handing each to take
  // until one fails; then the first failure.
  template <typename Take>
  Result ReadListing(uint32_t level, Take&& take);
  Result ReadCapabilities();
  Result Message(std::string_view command);

  Pop3LineHandler* handler_ = nullptr;
  std::string last_reply_;
  std::string status_line_;  // the last status line read, kept after success
  std::string password_;
  std::string user_;
  uint32_t sasl_mechanisms_ = 0;
  bool use_sasl_ = false;
  uint32_t capabilities_ = kPop3InitialCapabilities;
  SaslClient sasl_;
  std::string apop_timestamp_;
};

}  // namespace trv
