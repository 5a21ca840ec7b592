#include "services/imap4_service.h"

#include "core/engine.h"

namespace trv {

Result Imap4Service::Load(Settings& settings, const Guid& id) {
  if (Result r = MailService::Load(settings, id); r.failed()) return r;
  return LoadFolders();
}

// Placeholders until the folder records land.
Result Imap4Service::LoadFolders() { return rc::kOk; }
Result Imap4Service::SaveFolders() { return rc::kNotImplemented; }

}  // namespace trv
