// A run from the window against the harness's Dovecot: the status area, the
// message list and the activity log's window follow it.
#include <gtest/gtest.h>

#include <QTableView>
#include <QTest>

#include "app/gui/log_window.h"
#include "app/gui/run_commands.h"
#include "app/gui/session.h"
#include "services/service_registry.h"
#include "store/storage.h"
#include "tests/app/gui/gui_fixture.h"
#include "tests/support/mail_servers.h"

namespace trv::gui {
namespace {

using test::MailServers;
using GuiServersTest = GuiTest;

TEST_F(GuiServersTest, StatusListAndLogFollowASynchronizeAllRun) {
  TRV_REQUIRE_SERVER(MailServers::Instance().Dovecot());
  const std::string alice = MailServers::Alice().name;
  for (const auto& file : MailServers::Instance().Messages(alice)) std::filesystem::remove(file);
  for (const char* subject : {"One", "Two", "Three"}) {
    ASSERT_FALSE(MailServers::Instance().Deliver(alice, "Subject: " + std::string(subject) + "\n\nbody\n").empty());
  }
  {  // the account made beforehand (as the command line makes it), so that the tree shows its storage
    MailEngine* engine = AcquireEngine();
    engine->SetDataDirectoryOverride(data_dir());
    InstallServiceFactory(*engine);
    ASSERT_FALSE(engine->Start("").failed());
    ServiceSettings s;
    s.service_name = u"Alice";
    s.incoming.host = "127.0.0.1", s.incoming.port = MailServers::Instance().ports().pop3, s.incoming.timeout = 10;
    s.incoming.user_name = alice, s.incoming.password = MailServers::Alice().password, s.incoming.store_password = true;
    ASSERT_EQ(CreateService(*engine, "POP3", s, nullptr), rc::kOk);
    ReleaseEngine();
  }
  Session session;
  ASSERT_TRUE(session.Start({TRVMAIL_DIR, data_dir(), "", {}}));
  MainWindow& window = *session.window();
  MailService* service = FindService(*session.engine(), "Alice");
  ASSERT_NE(service, nullptr);
  ASSERT_TRUE(window.SelectFolder(service->storage().SpecialFolder(kFolderInbox)));
  auto& runs = *window.findChild<RunCommands*>();
  LogWindow& log = *runs.ShowLog();

  runs.synchronize_all()->trigger();
  EXPECT_TRUE(QTest::qWaitFor([&] { return runs.status().Lines() == QStringList{"Alice: finished"}; }, 30000))
      << runs.status().Lines().join('|').toStdString();
  EXPECT_EQ(runs.status().progress().value(), runs.status().progress().maximum());
  EXPECT_TRUE(QTest::qWaitFor([&] { return window.message_model().rowCount() == 3; }, 5000));
  EXPECT_TRUE(log.text().contains("Synchronization done")) << "refreshed when the run ended";

  QApplication::processEvents();
  EXPECT_TRUE(window.grab().save(QString(TRV_SCREENSHOT_DIR) + "/main_window_run.png"));
  EXPECT_TRUE(log.grab().save(QString(TRV_SCREENSHOT_DIR) + "/log_window.png"));
}

}  // namespace
}  // namespace trv::gui
