// A service that receives over IMAP4: its block of keys
// (services/mail_service.cpp), its folder synchronization records
// (services/imap4_folder_sync.h, loaded and saved with the service), and
// the receiving run (services/imap4_run.h): folder-list refresh, then each
// folder by its options, both ways.
#pragma once

#include "base/thread_annotations.h"
#include "services/imap4_folder_sync.h"
#include "services/mail_service.h"

namespace trv {

class Imap4Service final : public MailService {
 public:
  Imap4Service(MailEngine& engine, Storage& storage) : MailService(engine, storage) {}

  const char* ServiceClass() const override { return "IMAP4"; }

  // Loads the service's keys, then its folder records.
  Result Load(Settings& settings, const Guid& id) override;

  // The receiving run (Synchronize): login, folder-list refresh, records
  // saved, the tree synchronized folder by folder, logout. With
  // connect_only: login, the log header, logout.
  Result Receive(bool connect_only) override;

  // A partially loaded message the user asked to complete
  // (services/full_download.h) gets only the bytes it lacks,
  // BODY.PEEK[]<held.rest>, at the next run of its folder.

  // The records. Hold folders_mutex() while reading or changing them from
  // outside a run; SaveFolders writes them and flushes the settings file.
  Imap4FolderTree& folders() REQUIRES(folders_mu_) { return folders_; }
  Mutex& folders_mutex() RETURN_CAPABILITY(folders_mu_) { return folders_mu_; }
  Result LoadFolders() EXCLUDES(folders_mu_);
  Result SaveFolders() EXCLUDES(folders_mu_);

 protected:
  friend class Imap4Run;  // the run's state (services/imap4_run.h)
  void LoadIncoming(Settings& settings, const std::string& section, ServiceSettings& s) override;
  // Also writes the folder sections: takes folders_mutex(), so a run must
  // not call Save() (after a credentials prompt, say) while holding it.
  Result SaveIncoming(Settings& settings, const std::string& section, const ServiceSettings& s) override;
  // The folder sections go with the service.
  Result DeleteSections(Settings& settings, const Guid& id) override;

 private:
  Result SaveFolderSections(Settings& settings, const Guid& id) EXCLUDES(folders_mu_);

  Mutex folders_mu_;
  Imap4FolderTree folders_ GUARDED_BY(folders_mu_);
};

}  // namespace trv
