// Placeholder until the POP3 run is built.
#include "services/pop3_service.h"

namespace trv {

Result Pop3Service::Receive(bool) { return rc::kNotImplemented; }

}  // namespace trv
