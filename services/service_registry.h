// Making, finding and removing services on the engine: the factory that
// turns "Service.{" sections into Pop3Service / Imap4Service objects, and the
// account operations of the command line and the window program.
// Interface thread.
#pragma once

#include <string_view>
#include <vector>

#include "base/result.h"
#include "services/mail_service.h"

namespace trv {

class MailEngine;

// Installs the factory on the engine, once, before MailEngine::Start. Every
// MailService the engine adds (loaded or created) decides on certificates
// with the engine's one RunTrust (services/run_trust.h).
void InstallServiceFactory(MailEngine& engine);

// A new service of class "POP3" or "IMAP4" from `settings` (a new GUID when
// settings.guid is zero), with a new storage named after the service, saved
// to the settings file, read back (so it holds what the file says) and
// added to the engine. *created gets it. rc::kInvalidArg for another class,
// rc::kFileExists when a section of that GUID exists; on failure nothing
// is left behind.
Result CreateService(MailEngine& engine, std::string_view service_class, const ServiceSettings& settings,
                     MailService** created);

// The engine's services that are MailServices, in load order.
std::vector<MailService*> MailServices(MailEngine& engine);
// The service whose name (or, failing that, e-mail address) is `name`,
// compared without regard to case; null when none or several match.
MailService* FindService(MailEngine& engine, std::string_view name);

// Stops the service's runs, deletes its section, drops it from the engine;
// its storage is deleted too when `delete_storage` (unless another service
// uses it: rc::kInvalidArg), with the POP3 records of locally deleted
// messages ("<folder file>.deleted") of the folder files it removed. The service object is gone afterwards. Stop a
// running SyncScheduler first.
Result RemoveService(MailEngine& engine, MailService* service, bool delete_storage);

}  // namespace trv
