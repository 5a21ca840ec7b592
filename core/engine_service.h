// A mail service as the engine sees it: loaded from its settings section
// "Service.{GUID}", kept in the engine's list, given idle time, told of its
// storage. The services layer derives its account classes from it and
// installs a ServiceFactory on the engine before start-up.
#pragma once

#include <functional>
#include <memory>

#include "base/guid.h"
#include "base/result.h"
#include "core/settings_tree.h"
#include "base/wide_string.h"
#include "store/storage_host.h"

namespace trv {

class MailEngine;
class Storage;

class EngineService : public StorageService {
 public:
  // Reads the service's keys from its section of `settings`; `id` is the
  // identifier parsed from the section name (all zero when it does not
  // parse).
  virtual Result Load(Settings& settings, const Guid& id) = 0;
  // Called after a successful Load.
  virtual Result Initialize() = 0;
  // Between interface events, on the interface thread (scheduled work).
  virtual void Idle() = 0;
  // End of start-up: tell the service's own listeners that it is loaded.
  virtual void NotifyLoaded() {}
  // Called before the engine deletes the service: stop and join the worker.
  virtual void Shutdown() {}
};

// Makes the service object of a class ("POP3" or "IMAP4") for `storage`;
// null when it cannot (the service then fails to load with 0x80004005).
// One owner (the engine) and one setter, so a std::function rather than a
// listener list (base/listener_list.h); called on the interface thread
// during Start.
using ServiceFactory =
    std::function<std::unique_ptr<EngineService>(WStringView service_class, MailEngine& engine, Storage& storage)>;

}  // namespace trv
