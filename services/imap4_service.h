// A service that receives over IMAP4: its block of keys loads and saves
// (services/mail_service.cpp); the receiving run comes with the IMAP4
// synchronization.
#pragma once

#include "services/mail_service.h"

namespace trv {

class Imap4Service final : public MailService {
 public:
  Imap4Service(MailEngine& engine, Storage& storage) : MailService(engine, storage) {}

  const char* ServiceClass() const override { return "IMAP4"; }

  // Not built yet: logs that IMAP4 receiving is not available and returns
  // 0x80004001 (not implemented); connect_only likewise.
  Result Receive(bool connect_only) override;

 protected:
  void LoadIncoming(Settings& settings, const std::string& section, ServiceSettings& s) override;
  Result SaveIncoming(Settings& settings, const std::string& section, const ServiceSettings& s) override;
};

}  // namespace trv
