// A started engine in a home of its own, a new storage "Work" and a POP3
// service on it whose settings the test fills, recording its events.
#pragma once

#include <gtest/gtest.h>

#include <functional>

#include "core/engine.h"
#include "services/outbox.h"
#include "services/pop3_service.h"
#include "store/mail_folder.h"
#include "store/storage.h"
#include "tests/core/scoped_env.h"
#include "tests/support/temp_dir.h"

namespace trv::test {

class SendFixture : public ::testing::Test, public SyncObserver {
 protected:
  SendFixture() {
    std::filesystem::create_directories(dir_ / "home");
    EXPECT_EQ(engine_->Start("send test"), rc::kOk);
    EXPECT_EQ(storage_.Create(u"Work", engine_->data_directory(), false), rc::kOk);
    Edit([](ServiceSettings& s) {
      s.guid = Guid::NewRandom();
      s.service_name = u"Work";
      s.email_address = u"me@localhost";
      s.smtp.host = "127.0.0.1";
      s.smtp.timeout = 10;
    });
    service_.observers().Add(this);
  }
  ~SendFixture() override {
    service_.Shutdown();
    service_.observers().Remove(this);
    storage_.Close();
    ReleaseEngine();
  }
  void OnSyncEvent(MailService&, const SyncEvent& e) override { events_.push_back(e.code); }
  void Edit(const std::function<void(ServiceSettings&)>& change) {
    ServiceSettings s = service_.settings();
    change(s);
    service_.SetSettings(s);
  }
  FolderFile& File(uint32_t kind) { return *storage_.SpecialFolder(kind)->file(); }
  std::vector<MessageRecord> Folder(uint32_t kind) {
    EXPECT_EQ(File(kind).LoadIndex(), rc::kOk);
    return File(kind).Messages();
  }
  std::string Log() { return ReadFile(engine_->data_directory() / "TarvoMail.log"); }

  TempDir dir_;
  ScopedEnv home_{"HOME", (dir_ / "home").c_str()};
  ScopedEnv config_{"XDG_CONFIG_HOME", (dir_ / "config").c_str()};
  ScopedEnv data_{"XDG_DATA_HOME", (dir_ / "data").c_str()};
  MailEngine* engine_ = AcquireEngine();
  Storage storage_{*engine_};
  Pop3Service service_{*engine_, storage_};
  std::vector<int> events_;
};

}  // namespace trv::test
