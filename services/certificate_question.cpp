#include "services/certificate_question.h"

#include "services/run_trust.h"

namespace trv {

bool AskingTrust::AcceptCertificate(CMailSocket& socket, uint32_t flags, const TlsCertificate& certificate) {
  if (trust_.AcceptCertificate(socket, flags, certificate)) return true;
  const std::string& host = socket.connected_host();
  const uint16_t port = socket.connected_port();
  const std::optional<RefusedCertificate> refused = trust_.LastRefusal(host, port);
  if (!refused || !question_.TrustRefused(*refused)) return false;
  // A store that cannot be written keeps the refusal (its write error is
  // in the activity log through the store's sink).
  if (trust_.Trust(host, port, refused->cert).failed()) return false;
  return trust_.AcceptCertificate(socket, flags, certificate);
}

}  // namespace trv
