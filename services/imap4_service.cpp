#include "services/imap4_service.h"

#include "core/engine.h"

namespace trv {

Result Imap4Service::Load(Settings& settings, const Guid& id) {
  if (Result r = MailService::Load(settings, id); r.failed()) return r;
  return LoadFolders();
}

Result Imap4Service::LoadFolders() {
  const Guid id = settings().guid;
  MutexLock lock(folders_mu_);
  return folders_.Load(engine().settings(), id);
}

Result Imap4Service::SaveFolders() {
  const Guid id = settings().guid;
  Result r;
  {
    MutexLock lock(folders_mu_);
    r = folders_.Save(engine().settings(), id);
  }
  if (const Result flushed = engine().FlushSettings(); r.ok()) r = flushed;
  return r;
}

Result Imap4Service::SaveFolderSections(Settings& settings, const Guid& id) {
  MutexLock lock(folders_mu_);
  return folders_.Save(settings, id);
}

Result Imap4Service::DeleteSections(Settings& settings, const Guid& id) {
  return Imap4FolderTree::DeleteAll(settings, id);
}

}  // namespace trv
