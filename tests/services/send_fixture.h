// A POP3 service on the engine's local storage, its settings filled by the
// test, recording its events: for the sending tests.
#pragma once

#include <functional>
#include <memory>

#include "services/outbox.h"
#include "services/pop3_service.h"
#include "store/mail_folder.h"
#include "store/storage.h"
#include "tests/services/service_fixture.h"

namespace trv::test {

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
  void TearDown() override {
    service_.reset();
    ServiceEngineTest::TearDown();
  }
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
