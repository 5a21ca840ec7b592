#include "services/imap4_run.h"

namespace trv {

// Placeholder until the run lands.
Result Imap4Service::Receive(bool) {
  log().Log("Account " + DisplayName() + ": receiving over IMAP4 is not available yet");
  return rc::kNotImplemented;
}

}  // namespace trv
