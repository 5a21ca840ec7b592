#include "services/run_trust.h"

#include <utility>

#include "core/engine.h"
#include "net/socket_errors.h"
#include "net/tls_engine.h"
#include "services/certificate_question.h"
#include "services/mail_service.h"

namespace trv {

std::shared_ptr<CertificateTrust> RunTrust::Reload() {
  std::shared_ptr<CertificateTrust> trust;
  std::vector<std::string> problems;
  bool log_problems = false;
  std::filesystem::path path;
  {
    MutexLock lock(mu_);
    path = engine_.data_directory() / CertificateTrust::kFileName;
    // A new store when the data directory moved; the old one lives on in runs that hold it.
    if (trust_ == nullptr || !(path == trust_path_)) {
      trust_ = std::make_shared<CertificateTrust>(engine_.FileOps(), path, engine_.activity_log());
      trust_path_ = path;
    }
    trust = trust_;
    const Result read = trust->Load(&problems);
    if (read.failed()) problems.push_back("cannot be read: " + ResultText(read));
    log_problems = problems != logged_problems_;
    logged_problems_ = problems;
  }
  if (log_problems) {
    for (const std::string& problem : problems) {
      engine_.Log("Trusted certificates file " + path.string() + ": " + problem);
    }
  }
  return trust;
}

bool RunTrust::AcceptCertificate(CMailSocket& socket, uint32_t flags, const TlsCertificate& certificate) {
  return Reload()->AcceptCertificate(socket, flags, certificate);
}

std::optional<RefusedCertificate> RunTrust::LastRefusal(std::string_view host, uint16_t port) const {
  std::shared_ptr<CertificateTrust> trust;
  {
    MutexLock lock(mu_);
    trust = trust_;
  }
  if (trust == nullptr) return std::nullopt;
  return trust->LastRefusal(host, port);
}

Result RunTrust::Trust(std::string_view host, uint16_t port, const CertificateFacts& cert) {
  return Reload()->Trust(host, port, cert);
}

void RunTrust::OnServiceAdded(EngineService& service) {
  if (auto* mail = dynamic_cast<MailService*>(&service)) mail->SetCertificateDecider(this);
}

std::string CertificateRefusalText(CertificateDecider* decider, Result r, std::string_view host, int port) {
  if (r != SecureTransportError(kTlsEngineCertificateRefused) || port <= 0 || port > 65535) return "";
  const auto p = static_cast<uint16_t>(port);
  std::optional<RefusedCertificate> refused;
  if (auto* asking = dynamic_cast<AskingTrust*>(decider)) decider = &asking->trust();
  if (auto* run = dynamic_cast<RunTrust*>(decider)) refused = run->LastRefusal(host, p);
  if (auto* store = dynamic_cast<CertificateTrust*>(decider)) refused = store->LastRefusal(host, p);
  return refused ? refused->Message() : "";
}

std::string RunRefusalText(const MailService& service, Result r) {
  const ServiceSettings s = service.settings();
  std::string text = CertificateRefusalText(service.certificate_decider(), r, s.incoming.host, s.incoming.port);
  const std::string smtp = CertificateRefusalText(service.certificate_decider(), r, s.smtp.host,
                                                  s.smtp.port > 0 && s.smtp.port <= 65535 ? s.smtp.port : 25);
  if (!smtp.empty()) text += (text.empty() ? "" : " ") + smtp;
  return text;
}

}  // namespace trv
