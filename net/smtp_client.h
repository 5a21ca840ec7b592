// CSmtpClient: the client side of SMTP on a CMailSocket. Each operation
// sends one command line, reads the whole reply and returns 0 or a code:
// a transport code as it is, a reply error (net/smtp_reply.h: class 2 is
// transient, class 3 permanent) or one of the fixed 0x80C3 codes. A failed
// reply's first line is kept in last_reply(); every successful command
// empties it. No command is retried here.
//
// A sending run drives it as: Connect (reads the greeting), Greet (EHLO, or
// HELO when EHLO fails), optionally StartTls and Greet again, optionally
// Authenticate, then per message MailFrom/MailFromDsn, RcptTo/RcptToDsn per
// recipient and Data, and last Quit. extensions(), sasl_mechanisms() and
// max_size() hold what the last successful Ehlo reported.
//
// Log lines: the socket's LineListeners (net/mail_socket.h) get every
// command and reply line at kLogCommands; AUTH initial responses and SASL
// answers go out masked ("AUTH PLAIN ********", "********") unless the log
// mask holds kLogCredentials. The message text itself is not reported, only
// the closing ".".
//
// Threads: one thread at a time (the account's worker), like CMailSocket;
// listeners may be added and removed from any thread, and Abort() works from
// any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/listener_list.h"
#include "mime/stream.h"
#include "net/mail_socket.h"
#include "net/sasl.h"
#include "net/smtp_reply.h"

namespace trv {

class CSmtpClient;

// Told, on the client's thread, how many source bytes of the message Data
// has sent so far (a lone dot counts as one byte, not two).
class SmtpProgressListener {
 public:
  virtual ~SmtpProgressListener() = default;
  virtual void OnDataProgress(CSmtpClient& client, uint64_t bytes_sent) = 0;
};

// Asked by Data, before DATA is sent, whether to send a message larger than
// the server's SIZE limit; false ends Data with rc::kSmtpTooLarge.
class SmtpSizeConfirmer {
 public:
  virtual ~SmtpSizeConfirmer() = default;
  virtual bool SendOversized(CSmtpClient& client, uint64_t size, uint32_t max_size) = 0;
};

class CSmtpClient : public CMailSocket {
 public:
  // Longest reply line read; a longer one ends the command with
  // rc::kSockTooLong. Replies are short; this keeps a runaway server cheap.
  static constexpr int32_t kMaxReplyLine = 65536;
  // The buffer Data copies the message through.
  static constexpr size_t kDataPiece = 2048;

  CSmtpClient();
  ~CSmtpClient() override;  // wipes the password

  // CMailSocket::Connect, then the greeting: its first line must carry 220,
  // else its reply error. A failed greeting closes the connection.
  Result Connect(std::string_view host, uint16_t port) override;

  // Keeps the letters, digits, "-" and "." of local_name; when nothing is
  // left or it holds no ".", the local IPv4 address in brackets ("[10.0.0.5]").
  void SetHeloDomain(std::string_view local_name);
  // SetHeloDomain(GetLocalHostName()) when no domain is set yet, then Ehlo,
  // and Helo when Ehlo fails with a reply error.
  Result Greet();
  // "EHLO <domain>"; on 250 the reply lines set extensions, mechanisms and maxSize.
  Result Ehlo();
  Result Helo();  // "HELO <domain>"; 250
  Result Noop();  // 250
  Result Reset(); // "RSET"; 250
  // "STARTTLS", sent whether or not the server offered it; on 220 the TLS
  // handshake runs at once. Another reply leaves the connection as it was.
  Result StartTls();
  // "QUIT"; 221. Closes the connection in every case.
  Result Quit();
  // "VRFY <name>". 252: *result empty. 251: the text between the first "<"
  // and the last ">", trimmed. 250: the line from its fifth character, at
  // most 1000 characters.
  Result Verify(std::string_view name, std::string* result);
  // "MAIL FROM:<address>" (an address beginning with "<" is sent as it is),
  // with " SIZE=n" when size is not 0 and the server offers SIZE; 250.
  Result MailFrom(std::string_view address, uint64_t size);
  // As MailFrom; when the server offers DSN also " RET=HDRS" or " RET=FULL"
  // and, when envelope_id is not empty, " ENVID=<envelope_id>".
  Result MailFromDsn(std::string_view address, std::string_view envelope_id, bool return_headers_only,
                     uint64_t size);
  // "RCPT TO:<address>"; 250, 251 or 252.
  Result RcptTo(std::string_view address);
  // Notify flags of RcptToDsn.
  static constexpr uint32_t kNotifySuccess = 1, kNotifyFailure = 2, kNotifyDelay = 4;
  // "RCPT TO:<address>"; when the server offers DSN, " NOTIFY=" with the
  // flag words joined by "," (notify on and flags set) or "NEVER", then
  // " ORCPT=<type or rfc822>;<original>" when original is not empty. Only
  // 250 succeeds: unlike RcptTo, 251 and 252 are refused.
  Result RcptToDsn(std::string_view address, std::string_view original_recipient,
                   std::string_view address_type, bool notify, uint32_t notify_flags);
  // Sends the message from the stream (rewound first when length is 0):
  // DATA, 354, the bytes with every lone "." line doubled, then CR LF "."
  // CR LF and 250. length, when above 0, is the size to check against the
  // server's SIZE when it is larger than what the stream holds.
  Result Data(CXmStream& message, uint64_t length);
  // Tries the mechanisms the server offered in a fixed order until one
  // succeeds: LOGIN then PLAIN; with SetUseSasl(true) CRAM-MD5 (then
  // DIGEST-MD5, NTLM, MSN, which a server list never yields). None offered:
  // rc::kSmtpNoMechanism; otherwise the last attempt's result.
  Result Authenticate(std::string_view user, std::string_view password);

  void SetUseSasl(bool use_sasl) { use_sasl_ = use_sasl; }
  // Not owned; must outlive the client or be replaced first. Null: yes.
  void SetSizeConfirmer(SmtpSizeConfirmer* confirmer) { confirmer_ = confirmer; }
  // Not owned; any thread. After Remove returns the listener may be destroyed.
  void AddProgressListener(SmtpProgressListener* l) { progress_listeners_.Add(l); }
  void RemoveProgressListener(SmtpProgressListener* l) { progress_listeners_.Remove(l); }

  uint32_t extensions() const { return extensions_; }
  uint32_t sasl_mechanisms() const { return sasl_mechanisms_; }
  uint32_t max_size() const { return max_size_; }
  bool use_sasl() const { return use_sasl_; }
  const std::string& helo_domain() const { return helo_domain_; }
  const std::string& last_reply() const { return last_reply_; }
  // The lines of the last reply (the first SmtpReply::kMaxKeptLines of them).
  const std::vector<std::string>& reply_lines() const { return reply_.lines(); }

 private:
  // Reads one reply into reply_.
  Result ReadReply();
  // Sends line (masked as shown when not empty), reads the reply and checks
  // its code; keeps last_reply_ accordingly.
  Result Command(std::string_view line, std::initializer_list<std::string_view> codes,
                 std::string_view shown = {});
  // Checks reply_ against codes and keeps last_reply_.
  Result Check(std::initializer_list<std::string_view> codes);
  Result AuthenticateWith(uint32_t mechanism);
  Result SendData(CXmStream& message);
  static std::string Bracketed(std::string_view address);

  // Fields in their fixed order.
  ListenerList<SmtpProgressListener> progress_listeners_;
  SmtpSizeConfirmer* confirmer_ = nullptr;
  uint32_t sasl_mechanisms_ = 0;
  bool use_sasl_ = false;
  std::string helo_domain_;
  std::string last_reply_;
  uint32_t extensions_ = 0;
  uint32_t max_size_ = 0;
  std::string password_;
  SmtpReply reply_;
  std::string user_;
  std::unique_ptr<SaslClient> sasl_;
};

}  // namespace trv
