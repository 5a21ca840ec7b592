#include "app/gui/account_presets.h"

namespace trv::gui {

std::span<const AccountPreset> AccountPresets() {
  // A public webmail provider; the names are placeholders a packager
  // replaces with a real provider's.
  static constexpr AccountPreset kPresets[] = {
      {"Example Webmail", "pop.mail.example.net", "imap.mail.example.net", "smtp.mail.example.net",
       SmtpAuthMode::kSameAsIncoming},
  };
  return kPresets;
}

}  // namespace trv::gui
