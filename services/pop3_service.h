// A service that receives over POP3: the POP3 block of keys
// (services/mail_service.cpp) and the receiving run (services/pop3_sync.cpp).
#pragma once

#include "services/mail_service.h"

namespace trv {

class Pop3Service final : public MailService {
 public:
  Pop3Service(MailEngine& engine, Storage& storage) : MailService(engine, storage) {}

  const char* ServiceClass() const override { return "POP3"; }

  // The POP3 run: login, LIST and UIDL, downloads into the inbox by the
  // service's limits, deletes by its rules, QUIT. Every downloaded message
  // is committed to the disk before any DELE that could remove it.
  Result Receive(bool connect_only) override;

 protected:
  friend class Pop3Run;  // the run's state (services/pop3_sync.cpp)
  void LoadIncoming(Settings& settings, const std::string& section, ServiceSettings& s) override;
  Result SaveIncoming(Settings& settings, const std::string& section, const ServiceSettings& s) override;
};

}  // namespace trv
