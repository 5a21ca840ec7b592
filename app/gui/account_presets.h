// The servers the account editor can fill in for a provider: one table, so
// a packager can change or extend it. Every protocol of a preset uses
// implicit TLS on the protocol's implicit-SSL port (services/port_rules.h),
// and sending authenticates with the incoming user name and password.
#pragma once

#include <span>

#include "services/mail_service.h"

namespace trv::gui {

struct AccountPreset {
  const char* name;        // as the editor lists it
  const char* pop3_host;
  const char* imap4_host;
  const char* smtp_host;
  SmtpAuthMode smtp_authentication;
};

std::span<const AccountPreset> AccountPresets();

}  // namespace trv::gui
