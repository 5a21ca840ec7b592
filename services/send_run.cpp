// Placeholder until the sending run is built.
#include "services/mail_service.h"

namespace trv {

Result MailService::Send() { return rc::kNotImplemented; }
bool MailService::HasOutgoingMail() { return false; }

}  // namespace trv
