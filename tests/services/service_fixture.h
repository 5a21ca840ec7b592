// A started engine in a data directory of its own (service factory
// installed), a service whose runs a test controls, and a POP3 service on the
// local storage for the sending tests.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>

#include "core/engine.h"
#include "services/outbox.h"
#include "services/pop3_service.h"
#include "services/service_registry.h"
#include "store/mail_folder.h"
#include "store/storage.h"
#include "tests/support/temp_dir.h"

namespace trv::test {

class ServiceEngineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    engine_ = AcquireEngine();
    engine_->SetDataDirectoryOverride(dir_.path());
    InstallServiceFactory(*engine_);
    ASSERT_EQ(engine_->Start("test"), rc::kOk) << engine_->start_problem();
  }
  void TearDown() override { ReleaseEngine(); }
  void Restart() { TearDown(), SetUp(); }  // the services load from the saved file
  Storage& local() { return *engine_->storages().front(); }
  size_t LogCount(const std::string& line) {
    const std::string log = ReadFile(dir_ / "TarvoMail.log");
    size_t n = 0;
    for (size_t at = log.find(line); at != std::string::npos; at = log.find(line, at + 1)) ++n;
    return n;
  }
  TempDir dir_;
  MailEngine* engine_ = nullptr;
};

// Receive and Send append " receive" (" connect" when connect-only) or
// " send" to calls() and run on_receive / on_send. Events are read while idle.
class TestService final : public MailService, public SyncObserver {
 public:
  TestService(MailEngine& engine, Storage& storage) : MailService(engine, storage) { observers().Add(this); }
  ~TestService() override { Shutdown(); }
  const char* ServiceClass() const override { return "POP3"; }
  Result Receive(bool connect_only) override { return Call(connect_only ? " connect" : " receive", on_receive); }
  Result Send() override { return Call(" send", on_send); }
  bool HasOutgoingMail() override { return outgoing; }
  void OnSyncEvent(MailService&, const SyncEvent& event) override { events.push_back(event.code); }
  std::string calls() {
    std::lock_guard lock(mu_);
    return calls_;
  }
  using MailService::SetCurrentClient;

  std::function<Result()> on_receive, on_send;
  std::atomic<bool> outgoing{true};
  std::vector<int> events;

 protected:
  void LoadIncoming(Settings&, const std::string&, ServiceSettings&) override {}
  Result SaveIncoming(Settings&, const std::string&, const ServiceSettings&) override { return rc::kOk; }

 private:
  Result Call(const char* what, const std::function<Result()>& fn) {
    {
      std::lock_guard lock(mu_);
      calls_ += what;
    }
    return fn ? fn() : rc::kOk;
  }
  std::mutex mu_;
  std::string calls_;
};

// The POP3 service's settings are filled by the test; its events are recorded.
class SendFixture : public ServiceEngineTest, public SyncObserver {
 protected:
  void SetUp() override {
    ServiceEngineTest::SetUp();
    service_ = std::make_unique<Pop3Service>(*engine_, local());
    service_->observers().Add(this);
    Edit([](ServiceSettings& s) {
      s.guid = Guid::NewRandom();
      s.service_name = u"Work";
      s.email_address = u"me@localhost";
      s.smtp.host = "127.0.0.1";
      s.smtp.timeout = 10;
    });
  }
  void TearDown() override { service_.reset(), ServiceEngineTest::TearDown(); }
  void OnSyncEvent(MailService&, const SyncEvent& e) override { events_.push_back(e.code); }
  void Edit(const std::function<void(ServiceSettings&)>& change) {
    ServiceSettings s = service_->settings();
    change(s);
    service_->SetSettings(s);
  }
  FolderFile& File(uint32_t kind) { return *local().SpecialFolder(kind)->file(); }
  std::vector<MessageRecord> Folder(uint32_t kind) {
    EXPECT_EQ(File(kind).LoadIndex(), rc::kOk);
    return File(kind).Messages();
  }
  std::string Log() { return ReadFile(dir_ / "TarvoMail.log"); }

  std::unique_ptr<Pop3Service> service_;
  std::vector<int> events_;
};

}  // namespace trv::test
