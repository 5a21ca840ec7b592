// One SMTP session of a service's sending run: opening it (the log header,
// connect, TLS, greeting, authentication by SMTPAuthentication), sending one
// message, and closing it. Send() (services/send_run.cpp) drives it.
//
// Threads: the service's worker only. While connected the client is the
// service's current client, so a hard Stop aborts its socket from another
// thread.
// Lifetime: the service outlives the session; the destructor closes an open
// session.
#pragma once

#include <string>
#include <string_view>

#include "base/result.h"
#include "net/line_log.h"
#include "net/smtp_client.h"
#include "services/mail_service.h"

namespace trv {

// Whether other credentials can mend an AUTH failure: only a permanent
// refusal by the server (a 5xx reply) can. Transport and TLS failures, no
// usable mechanism, a malformed reply and transient (4xx) refusals cannot:
// the run then stops without asking.
bool CredentialsMayHelp(Result auth_failure);

class SendRun {
 public:
  // `settings` is the run's copy, taken when the run starts.
  SendRun(MailService& service, const ServiceSettings& settings);
  ~SendRun();
  SendRun(const SendRun&) = delete;
  SendRun& operator=(const SendRun&) = delete;

  // The six header lines, event 1, connect (SOCKS, implicit TLS), event 2,
  // "Local address: ", the greeting, STARTTLS for explicit TLS (event 16;
  // with SMTPSSLAllowInsecure a refusal is logged as a warning and the
  // session goes on in the clear), authentication (event 5, the credentials
  // prompt), then status 5 and event 6. A failure clears the status word's
  // bit 2 and sends event 4; its code is returned (rc::kAbort for a cancel
  // in the prompt) and not logged here.
  Result OpenSession();
  // MAIL FROM, RCPT TO for To, CC and BCC, DATA with OutgoingText; a
  // message above the server's SIZE limit is asked about first (not sent:
  // rc::kSmtpTooLarge, nothing said to the server). The
  // caller logs a failure. After a refusal the transaction is reset (RSET)
  // so the next message can be sent.
  Result SendMessage(std::string_view stored_text);
  // Event 3, QUIT when connected, close, status 0, event 4. Always safe.
  void CloseSession();

  // The run error line for `r` with this session's host, port and the reply
  // of the last failure.
  void LogError(Result r);
  bool connected() const { return client_.connected(); }
  const ServiceSettings& settings() const { return settings_; }

 private:
  Result StartTls();
  Result Authenticate();
  // Credentials the prompt brought back, kept for later runs as the mode says.
  void StoreCredentials(const Credentials& credentials);
  void Log(std::string_view line);
  void LogTlsStatus();
  uint16_t port() const;
  // For a message above the server's SIZE limit: the service's
  // SizeQuestion; no question, no send.
  bool SendOversized(uint64_t size);

  MailService& service_;
  ServiceSettings settings_;
  CSmtpClient client_;
  LineLog line_log_;
  std::string failed_reply_;  // of the last failed message, kept past its RSET
  bool open_ = false;
};

}  // namespace trv
