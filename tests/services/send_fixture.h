// A started engine in a home of its own, a new storage "Work" and a POP3
// service on it whose settings the test fills; the folders and the activity
// log as the sending tests read them.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "base/file_io.h"
#include "core/engine.h"
#include "services/outbox.h"
#include "services/pop3_service.h"
#include "store/mail_folder.h"
#include "store/storage.h"
#include "tests/core/scoped_env.h"
#include "tests/support/temp_dir.h"

namespace trv::test {

// Every event code a service reported, in order.
struct EventRecorder final : SyncObserver {
  std::vector<int> codes;
  void OnSyncEvent(MailService&, const SyncEvent& e) override { codes.push_back(e.code); }
};

class SendFixture : public ::testing::Test {
 protected:
  SendFixture() {
    std::filesystem::create_directories(dir_ / "home");
    EXPECT_EQ(engine_->Start("send test"), rc::kOk) << engine_->start_problem();
    EXPECT_EQ(storage_.Create(u"Work", engine_->data_directory(), false), rc::kOk);
    ServiceSettings s;
    s.guid = Guid::NewRandom();
    s.service_name = u"Work";
    s.email_address = u"me@localhost";
    s.smtp.host = "127.0.0.1";
    s.smtp.timeout = 10;
    service_.SetSettings(s);
    service_.observers().Add(&events_);
  }
  ~SendFixture() override {
    service_.observers().Remove(&events_);
    storage_.Close();
    ReleaseEngine();
  }
  void Edit(const std::function<void(ServiceSettings&)>& change) {
    ServiceSettings s = service_.settings();
    change(s);
    service_.SetSettings(s);
  }
  std::vector<MessageRecord> Folder(uint32_t kind) {
    FolderFile* f = storage_.SpecialFolder(kind)->file();
    EXPECT_EQ(f->LoadIndex(), rc::kOk);
    return f->Messages();
  }
  std::string Log() { return ReadFileText(engine_->data_directory() / "TarvoMail.log"); }
  static std::string ReadFileText(const std::filesystem::path& path) {
    std::string text;
    ReadWholeFile(path, &text).Ignore();  // a missing file reads as empty
    return text;
  }

  TempDir dir_;
  ScopedEnv home_{"HOME", (dir_ / "home").c_str()};
  ScopedEnv config_{"XDG_CONFIG_HOME", (dir_ / "config").c_str()};
  ScopedEnv data_{"XDG_DATA_HOME", (dir_ / "data").c_str()};
  MailEngine* engine_ = AcquireEngine();
  Storage storage_{*engine_};
  Pop3Service service_{*engine_, storage_};
  EventRecorder events_;
};

}  // namespace trv::test
