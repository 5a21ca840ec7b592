// A started engine in a data directory of its own, with the service factory
// installed, and a service whose runs a test controls.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "core/engine.h"
#include "services/mail_service.h"
#include "services/service_registry.h"
#include "tests/support/temp_dir.h"

namespace trv::test {

class ServiceEngineTest : public ::testing::Test {
 protected:
  void SetUp() override { Begin(); }
  void TearDown() override { ReleaseEngine(); }
  void Begin() {
    engine_ = AcquireEngine();
    engine_->SetDataDirectoryOverride(dir_.path());
    InstallServiceFactory(*engine_);
    ASSERT_EQ(engine_->Start("test"), rc::kOk) << engine_->start_problem();
  }
  // Shuts the engine down and starts it again from the files.
  void Restart() {
    ReleaseEngine();
    Begin();
  }
  Storage& local() { return *engine_->storages().front(); }
  std::string File(const std::string& name) { return ReadFile(dir_ / name); }

  TempDir dir_;
  MailEngine* engine_ = nullptr;
};

// Send and Receive record their calls and run `on_receive` / `on_send`.
class TestService final : public MailService, public SyncObserver {
 public:
  TestService(MailEngine& engine, Storage& storage) : MailService(engine, storage) { observers().Add(this); }
  ~TestService() override { Shutdown(); }
  const char* ServiceClass() const override { return "POP3"; }
  Result Receive(bool connect_only) override { return Call(connect_only ? "connect" : "receive", on_receive); }
  Result Send() override { return Call("send", on_send); }
  bool HasOutgoingMail() override { return outgoing; }
  void OnSyncEvent(MailService&, const SyncEvent& event) override { events.push_back(event.code); }
  std::string calls() {
    std::lock_guard lock(mu);
    return calls_;
  }
  using MailService::SetCurrentClient;

  std::function<Result()> on_receive, on_send;
  std::atomic<bool> outgoing{true};
  std::vector<int> events;  // read only while the service is idle

 protected:
  void LoadIncoming(Settings&, const std::string&, ServiceSettings&) override {}
  Result SaveIncoming(Settings&, const std::string&, const ServiceSettings&) override { return rc::kOk; }

 private:
  Result Call(const char* what, const std::function<Result()>& fn) {
    {
      std::lock_guard lock(mu);
      calls_ += calls_.empty() ? what : std::string(" ") + what;
    }
    return fn ? fn() : rc::kOk;
  }
  std::mutex mu;
  std::string calls_;
};

}  // namespace trv::test
