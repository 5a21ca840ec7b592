// The certificate question of a program that can ask the person: a
// CertificateDecider that decides with the engine's RunTrust and, when the
// store refuses a certificate, asks whether to trust it for that host and
// port. A yes is written to the store (CertificateTrust::Trust, as
// `trvmail-cli accept-cert` writes it) and the store decides again, so a
// certificate passes only through the store; a no leaves the refusal, and
// the run ends with its text (CertificateRefusalText sees through this
// object to the RunTrust).
//
// Threads: AcceptCertificate runs on the services' worker threads; the
// question is asked there. The RunTrust and the question must outlive every
// run that decides with this object.
#pragma once

#include <string>

#include "net/mail_socket.h"
#include "services/certificate_trust.h"

namespace trv {

class RunTrust;

class CertificateQuestion {
 public:
  virtual ~CertificateQuestion() = default;
  // Whether to trust the refused certificate for refused.host:refused.port
  // (refused.key_changed(): the store trusts another key there). Several
  // runs may ask at once; an implementation serialises its questions.
  virtual bool TrustRefused(const RefusedCertificate& refused) = 0;
};

class AskingTrust final : public CertificateDecider {
 public:
  AskingTrust(RunTrust& trust, CertificateQuestion& question) : trust_(trust), question_(question) {}

  bool AcceptCertificate(CMailSocket& socket, uint32_t flags, const TlsCertificate& certificate) override;
  RunTrust& trust() const { return trust_; }

 private:
  RunTrust& trust_;
  CertificateQuestion& question_;
};

}  // namespace trv
