// An engine on a data directory of its own with a POP3 service for the
// harness's Dovecot user alice, receiving into "Local Folders/Inbox": for the
// whole-run tests and the crash test's child process.
#pragma once

#include <filesystem>
#include <memory>

#include "core/engine.h"
#include "services/pop3_service.h"
#include "store/storage.h"
#include "tests/support/mail_servers.h"

namespace trv::test {

struct Pop3TestAccount {
  MailEngine* engine = nullptr;
  std::unique_ptr<Pop3Service> service;
  FolderFile* inbox = nullptr;

  // Starts the engine (once per process at a time) on `dir`.
  Result Start(const std::filesystem::path& dir, uint16_t port) {
    engine = AcquireEngine();
    engine->SetRegistryPath(dir / "registry.ini");
    engine->SetDataDirectoryOverride(dir / "data");
    if (Result r = engine->Start("pop3 test"); r.failed()) return r;
    Storage& local = *engine->storages().front();
    service = std::make_unique<Pop3Service>(*engine, local);
    inbox = local.SpecialFolder(kFolderInbox)->file();
    ServiceSettings s;
    s.service_name = W("Test");
    s.incoming.host = "127.0.0.1";
    s.incoming.port = port;
    s.incoming.user_name = MailServers::Alice().name;
    s.incoming.password = MailServers::Alice().password;
    s.incoming.timeout = 10;
    service->SetSettings(s);
    return rc::kOk;
  }
  ~Pop3TestAccount() {
    service.reset();
    if (engine != nullptr) ReleaseEngine();
  }
  // Changes the settings for the next run.
  template <typename F>
  void Set(F&& change) {
    ServiceSettings s = service->settings();
    change(s);
    service->SetSettings(s);
  }
};

}  // namespace trv::test
