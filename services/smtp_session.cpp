#include "services/smtp_session.h"

#include <algorithm>

#include "base/wide_string.h"
#include "mime/header.h"
#include "mime/message_facts.h"
#include "mime/stream.h"
#include "net/secret.h"
#include "services/outgoing_text.h"
#include "services/run_log.h"
#include "services/run_trust.h"

namespace trv {

bool CredentialsMayHelp(Result r) { return IsSmtpReplyError(r) && SmtpReplyClass(r) == 3; }

SendRun::SendRun(MailService& service, const ServiceSettings& settings)
    : service_(service), settings_(settings), line_log_(service.log()) {
  client_.AddLineListener(&line_log_);
}

SendRun::~SendRun() {
  CloseSession();
  client_.RemoveLineListener(&line_log_);
}

void SendRun::Log(std::string_view line) { service_.log().Log(line); }

uint16_t SendRun::port() const {
  const int32_t p = settings_.smtp.port;
  return p > 0 && p <= 65535 ? static_cast<uint16_t>(p) : 25;
}

bool SendRun::SendOversized(uint64_t size) {
  SizeQuestion* question = service_.size_question();
  return question != nullptr && question->SendOversized(service_, size, client_.max_size());
}

void SendRun::LogError(Result r) {
  const std::string& reply = failed_reply_.empty() ? client_.last_reply() : failed_reply_;
  LogRunError(service_.log(), r, service_.DisplayName(), settings_.smtp.host, port(), reply,
              CertificateRefusalText(service_.certificate_decider(), r, settings_.smtp.host, port()));
  failed_reply_.clear();
}

void SendRun::LogTlsStatus() {
  if (client_.tls_failed()) {
    std::string line = "SMTP SSL status: " + ResultText(Result(client_.last_tls_error()));
    if (!client_.tls_error_detail().empty()) line += " (" + client_.tls_error_detail() + ")";
    Log(line);
  } else if (!client_.plain_mode()) {
    Log("SMTP SSL status: " + client_.TlsProtocol() + " " + client_.TlsCipher());
  }
}

Result SendRun::OpenSession() {
  const ProtocolSettings& smtp = settings_.smtp;
  Log("Synchronizing " + smtp.host + " (SMTP)");
  Log("Host: " + smtp.host + " Port: " + std::to_string(port()) + " Timeout: " + std::to_string(smtp.timeout));
  Log(std::string("Authentication: ") + SmtpAuthModeName(settings_.smtp_authentication));
  Log(SocksLogLine(smtp));
  Log(SslLogLine(smtp));
  Log(SaslLogLine(smtp));
  service_.Report(kEventConnecting, {}, smtp.host);

  ApplyConnectionSettings(smtp, client_);
  client_.SetCertificateDecider(service_.certificate_decider());
  client_.SetUseSasl(smtp.use_sasl);
  const bool implicit_tls = smtp.use_ssl && !smtp.ssl_explicit;
  open_ = true;
  service_.SetCurrentClient(&client_);
  Result r = client_.SetPlainMode(!implicit_tls);
  if (r.ok()) r = client_.Connect(smtp.host, port());
  if (implicit_tls && (r.ok() || client_.tls_failed())) LogTlsStatus();
  if (r.ok()) {
    service_.Report(kEventConnected);
    std::string local;
    client_.GetLocalAddress(&local).Ignore();  // "(unknown)" when it fails
    Log("Local address: " + local);
    r = client_.Greet();
  }
  if (r.ok() && smtp.use_ssl && smtp.ssl_explicit) r = StartTls();
  if (r.ok() && (settings_.smtp_authentication == SmtpAuthMode::kSameAsIncoming ||
                 settings_.smtp_authentication == SmtpAuthMode::kCredentials)) {
    r = Authenticate();
  }
  if (r.ok()) {
    service_.SetStatus(kStatusReady);
    service_.Report(kEventReady);
    return r;
  }
  service_.SetStatus(service_.status_.load() & ~2u);
  service_.Report(kEventClosed);
  return r;
}

Result SendRun::StartTls() {
  service_.Report(kEventStartingTls);
  Result r = client_.StartTls();
  if (r.ok() || client_.tls_failed()) LogTlsStatus();
  if (r.ok()) return client_.Greet();
  // A refused STARTTLS leaves the connection as it was; a failed handshake does not.
  if (settings_.smtp.ssl_allow_insecure && !client_.tls_failed() && client_.connected()) {
    Log("Warning: STARTTLS failed, going on without TLS: " + ResultText(r) + " Last reply: " + client_.last_reply());
    return rc::kOk;
  }
  return r;
}

Result SendRun::Authenticate() {
  const bool incoming = settings_.smtp_authentication == SmtpAuthMode::kSameAsIncoming;
  const ProtocolSettings& source = incoming ? settings_.incoming : settings_.smtp;
  Credentials credentials{source.user_name, source.password, source.store_password};
  bool prompted = false;
  for (;;) {
    service_.Report(kEventAuthenticating);
    Result r = client_.Authenticate(credentials.user_name, credentials.password);
    if (r.ok()) {
      if (prompted) StoreCredentials(credentials);
      WipeSecret(&credentials.password);
      return r;
    }
    CredentialsPrompt* prompt = service_.credentials_prompt();
    if (!CredentialsMayHelp(r) || prompt == nullptr) {
      WipeSecret(&credentials.password);
      return r;
    }
    Log("Authentication failed: " + ResultText(r) + " Last reply: " + client_.last_reply());
    if (!prompt->AskCredentials(service_, incoming ? CredentialsFor::kIncoming : CredentialsFor::kSmtp,
                                credentials)) {
      WipeSecret(&credentials.password);
      return rc::kAbort;
    }
    prompted = true;
  }
}

void SendRun::StoreCredentials(const Credentials& c) {
  const bool incoming = settings_.smtp_authentication == SmtpAuthMode::kSameAsIncoming;
  ServiceSettings s = service_.settings();
  for (ServiceSettings* target : {&s, &settings_}) {
    ProtocolSettings& p = incoming ? target->incoming : target->smtp;
    p.store_password = c.save;
    p.user_name = incoming || c.save ? c.user_name : std::string();
    p.password = c.save ? c.password : std::string();
  }
  service_.SetSettings(s);
  if (Result r = service_.Save(); r.failed()) Log("The account's settings could not be saved: " + ResultText(r));
}

Result SendRun::SendMessage(std::string_view stored_text) {
  failed_reply_.clear();
  CXmHeader header;
  // A header with a damaged field still names its addresses; the server judges the rest.
  header.Parse(stored_text, settings_.reading_charset).Ignore();
  std::string sender = WideToUtf8(SenderAddress(header));
  if (sender.empty()) sender = WideToUtf8(settings_.email_address);
  const std::string text = OutgoingText(stored_text);
  // Asked before MAIL FROM: a server refuses a declared size above its
  // limit at once. One sent anyway goes undeclared, for the server to judge.
  const bool oversized = client_.max_size() != 0 && text.size() > client_.max_size();
  if (oversized && !SendOversized(text.size())) return rc::kSmtpTooLarge;
  Result r = client_.MailFrom(sender, oversized ? 0 : text.size());
  for (const WString& to : RecipientAddresses(header)) {
    if (r.failed()) break;
    r = client_.RcptTo(WideToUtf8(to));
  }
  if (r.ok()) {
    CXmViewStream stream(text);
    r = client_.Data(stream, 0);
  }
  if (r.failed()) {
    // The refusal's reply is the one to log, not that of the RSET after it.
    failed_reply_ = client_.last_reply();
    if (client_.connected() && r != rc::kAbort) client_.Reset().Ignore();  // a failed RSET shows at the next MAIL
  }
  return r;
}

void SendRun::CloseSession() {
  if (!open_) return;
  open_ = false;
  service_.Report(kEventClosing);
  if (client_.connected()) client_.Quit().Ignore();  // the session ends either way; Quit closes
  client_.Close().Ignore();                             // always 0
  service_.SetCurrentClient(nullptr);
  service_.SetStatus(kStatusClosed);
  service_.Report(kEventClosed);
}

}  // namespace trv
