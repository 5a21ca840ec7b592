// The engine's certificate trust store for the service runs, and the text a
// run's failure carries when a certificate was refused.
//
// InstallServiceFactory (services/service_registry.h) makes one RunTrust per
// engine and sets it as the certificate decider of every MailService the
// engine adds: those loaded at start-up and those made later by
// CreateService. The store is read again from the engine's data directory
// (CertificateTrust::kFileName) before every decision on a flagged
// certificate, so entries `accept-cert` wrote while another process (e.g.
// `watch`) runs count from its next connection on. Lines of a damaged file
// are logged to the activity log, once for each new set of problems.
//
// Threads: AcceptCertificate and LastRefusal run on the services' worker
// threads, OnServiceAdded on the interface thread. The engine must outlive
// the object, and the object every run that decides with it.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "base/thread_annotations.h"
#include "core/engine_listeners.h"
#include "services/certificate_trust.h"

namespace trv {

class MailEngine;
class MailService;

class RunTrust final : public CertificateDecider, public ServiceAddedListener {
 public:
  explicit RunTrust(MailEngine& engine) : engine_(engine) {}

  // Reads the file again and decides (CertificateTrust::Decide).
  bool AcceptCertificate(CMailSocket& socket, uint32_t flags, const TlsCertificate& certificate) override
      EXCLUDES(mu_);
  std::optional<RefusedCertificate> LastRefusal(std::string_view host, uint16_t port) const EXCLUDES(mu_);
  // Trusts the certificate for host:port in the freshly read store
  // (CertificateTrust::Trust). Any thread.
  Result Trust(std::string_view host, uint16_t port, const CertificateFacts& cert) EXCLUDES(mu_);

  // ServiceAddedListener: a MailService gets this object as its decider.
  void OnServiceAdded(EngineService& service) override;

 private:
  // The store of the current data directory, freshly read.
  std::shared_ptr<CertificateTrust> Reload() EXCLUDES(mu_);

  MailEngine& engine_;
  mutable Mutex mu_;
  std::shared_ptr<CertificateTrust> trust_ GUARDED_BY(mu_);
  std::filesystem::path trust_path_ GUARDED_BY(mu_);
  std::vector<std::string> logged_problems_ GUARDED_BY(mu_);
};

// For a connection to host:port that failed with `r`: the refusal text
// (RefusedCertificate::Message) when `r` is the refused-certificate code and
// `decider`, a RunTrust, an AskingTrust or a CertificateTrust, refused host:port last; ""
// otherwise.
std::string CertificateRefusalText(CertificateDecider* decider, Result r, std::string_view host, int port);

// For a run of `service` that ended in `r`: the refusal texts of its
// incoming and SMTP servers when `r` is the refused-certificate code, else "".
std::string RunRefusalText(const MailService& service, Result r);

}  // namespace trv
