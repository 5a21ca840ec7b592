// The way in of both receiving runs: credentials, connection, STARTTLS,
// login, and the credentials a prompt brought kept in the settings.
#include <algorithm>

#include "net/mail_socket.h"
#include "net/socket_errors.h"
#include "services/mail_service.h"

namespace trv {

Result MailService::ConnectIncoming(CMailSocket& client, std::string_view protocol, const IncomingLogin& steps) {
  const ProtocolSettings p = settings().incoming;
  const auto log_tls_status = [&] {
    if (client.tls_failed()) {
      log().Log(std::string(protocol) + " SSL status: " + ResultText(SecureTransportError(client.last_tls_error())));
    }
  };
  ApplyConnectionSettings(p, client);
  client.SetCertificateDecider(decider_);
  if (p.use_ssl && !p.ssl_explicit) client.SetPlainMode(false).Ignore();  // stored before Connect: no failure
  Credentials credentials{p.user_name, p.password, false};
  if (credentials.password.empty() && prompt_ != nullptr &&
      !prompt_->AskCredentials(*this, CredentialsFor::kIncoming, credentials)) {
    return rc::kAbort;
  }
  SetCurrentClient(&client);
  Report(kEventConnecting, {}, p.host);
  Result r = client.Connect(p.host, static_cast<uint16_t>(std::clamp(p.port, 0, 65535)));
  log_tls_status();
  if (r.failed()) return r;
  std::string local;
  client.GetLocalAddress(&local).Ignore();  // "(unknown)" is logged then
  log().Log("Local address: " + local);
  Report(kEventConnected);
  if (interrupted()) return rc::kAbort;
  if (p.use_ssl && p.ssl_explicit) {
    Report(kEventStartingTls);
    r = steps.start_tls();
    log_tls_status();
    if (r.failed()) return r;
  }
  Report(kEventAuthenticating);
  for (int attempt = 0;; ++attempt) {
    r = steps.login(credentials);
    if (r != steps.refused || prompt_ == nullptr || attempt > 0) break;
    if (!prompt_->AskCredentials(*this, CredentialsFor::kIncoming, credentials)) return rc::kAbort;
  }
  if (r.failed()) return r;
  if (credentials.password != p.password || credentials.user_name != p.user_name) {
    ServiceSettings changed = settings();
    changed.incoming.user_name = credentials.user_name;
    changed.incoming.password = credentials.password;
    changed.incoming.store_password = credentials.save;
    SetSettings(changed);
    if (credentials.save) Save().Ignore();  // the run goes on; the next one asks again
  }
  SetStatus(kStatusReady);
  Report(kEventReady);
  return interrupted() ? rc::kAbort : rc::kOk;
}

}  // namespace trv
