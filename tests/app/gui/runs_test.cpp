// Runs from the window without mail servers, the desktop integration with a
// program of the test's own, the activity log's tail, and the start-up
// problems a person is told or asked.
#include <gtest/gtest.h>

#include <QLabel>
#include <QLineEdit>
#include <QTest>
#include <fstream>

#include "app/gui/compose_window.h"
#include "app/gui/desktop_integration.h"
#include "app/gui/log_window.h"
#include "app/gui/run_commands.h"
#include "app/gui/run_questions.h"
#include "app/gui/session.h"
#include "base/file_io.h"
#include "core/instance_lock.h"
#include "services/service_registry.h"
#include "tests/app/gui/gui_fixture.h"
#include "tests/support/script_server.h"

namespace trv::gui {
namespace {

using GuiRunsTest = GuiTest;

// A POP3 account of the session's engine on 127.0.0.1:port.
MailService* AddAccount(Session& session, const char16_t* name, uint16_t port, bool password) {
  ServiceSettings s;
  s.service_name = name;
  s.incoming.host = "127.0.0.1", s.incoming.port = port, s.incoming.timeout = 30;
  s.incoming.user_name = "ann", s.incoming.store_password = password;
  if (password) s.incoming.password = "secret";
  MailService* created = nullptr;
  EXPECT_EQ(CreateService(*session.engine(), "POP3", s, &created), rc::kOk);
  return created;
}

TEST_F(GuiRunsTest, StopEndsARunAndAMissingPasswordEndsItWithTheReason) {
  test::ScriptServer silent(Script().Silence());  // takes the connection and never greets
  Session session;
  ASSERT_TRUE(session.Start({TRVMAIL_DIR, data_dir(), "", {}}));
  auto& runs = *session.window()->findChild<RunCommands*>();
  struct : RunQuestions {  // the password question cancelled
    bool AskCredentials(QWidget*, const LanguageTable&, const QString&, const QString&, Credentials*) override {
      return false;
    }
  } cancel;
  runs.set_questions(cancel);
  MailService* hanging = AddAccount(session, u"Hanging", silent.port(), true);
  MailService* nopass = AddAccount(session, u"NoPass", silent.port(), false);
  ASSERT_TRUE(hanging && nopass);
  const auto line = [&](int i) { return runs.status().Lines().value(i).toStdString(); };

  ASSERT_EQ(runs.Synchronize(hanging), rc::kOk);
  ASSERT_TRUE(QTest::qWaitFor([&] { return line(0) == "Hanging: connecting to 127.0.0.1"; }, 10000)) << line(0);
  runs.stop()->trigger();
  EXPECT_TRUE(QTest::qWaitFor([&] { return line(0) == "Hanging: stopped"; }, 10000)) << line(0);
  EXPECT_FALSE(hanging->running());

  ASSERT_EQ(runs.Synchronize(nopass), rc::kOk);
  EXPECT_TRUE(QTest::qWaitFor([&] { return line(1).find("NoPass: stopped: no password was given for 127.0.0.1") == 0; },
                              10000)) << line(1);
  EXPECT_EQ(line(0), "Hanging: stopped");
  EXPECT_TRUE(HandleMailto(*session.window(), "mailto:b@c.d?SUBJECT=50%&x-any=1"));  // odd escape, unknown name
  auto* compose = session.window()->findChild<ComposeWindow*>();
  ASSERT_NE(compose, nullptr);
  EXPECT_EQ(compose->to().text() + "|" + compose->subject().text(), "b@c.d|50%");
  EXPECT_TRUE(compose->note().isVisibleTo(compose));
}

TEST_F(GuiRunsTest, DesktopIntegrationThroughTheProgramAndMimeappsList) {
  const std::filesystem::path calls = dir_.path() / "calls", script = dir_.path() / "fake-mime";
  std::ofstream(script) << "#!/bin/sh\nif [ \"$1\" = query ]; then grep -q \"default trvmail.desktop $3\" " << calls
                        << " && echo trvmail.desktop; exit 0; fi\necho \"$@\" >> " << calls << "\n";
  std::filesystem::permissions(script, std::filesystem::perms::owner_all);
  DesktopIntegration desktop(script.string(), dir_.path());
  EXPECT_FALSE(desktop.IsIntegrated());
  ASSERT_EQ(desktop.Integrate(), rc::kOk);
  std::string text;
  ASSERT_EQ(ReadWholeFile(calls, &text), rc::kOk);
  EXPECT_EQ(text, "default trvmail.desktop x-scheme-handler/mailto\ndefault trvmail.desktop message/rfc822\n");
  EXPECT_TRUE(desktop.IsIntegrated());

  std::ofstream(dir_.path() / "mimeapps.list")
      << "[Default Applications]\nx-scheme-handler/mailto=trvmail.desktop\ntext/html=web.desktop\n\n"
         "[Added Associations]\nmessage/rfc822=other.desktop;trvmail.desktop;\n"
         "x-scheme-handler/mailto=trvmail.desktop;\n";
  ASSERT_EQ(desktop.Desintegrate(), rc::kOk);
  ASSERT_EQ(ReadWholeFile(dir_.path() / "mimeapps.list", &text), rc::kOk);
  EXPECT_EQ(text,
            "[Default Applications]\ntext/html=web.desktop\n\n[Added Associations]\nmessage/rfc822=other.desktop;\n");

  DesktopIntegration missing((dir_.path() / "no-such-program").string(), dir_.path());
  EXPECT_EQ(missing.Integrate(), rc::kFail);
  EXPECT_EQ(missing.problem(), DesktopIntegration::Problem::kProgramMissing);
  EXPECT_EQ(missing.subject(), (dir_.path() / "no-such-program").string());
}

TEST_F(GuiRunsTest, LogTailKeepsTheLastWholeLines) {
  const std::filesystem::path log = dir_.path() / "log";
  std::ofstream(log) << "first\r\nsecond\r\nthird\r\n";
  EXPECT_EQ(LogWindow::TailLines(log), QStringList({"first", "second", "third"}));
  EXPECT_EQ(LogWindow::TailLines(log, 2), QStringList({"second", "third"}));
  EXPECT_EQ(LogWindow::TailLines(log, 10, 10), QStringList({"third"}));  // "cond\r\n" was cut
  EXPECT_EQ(LogWindow::TailLines(dir_.path() / "none"), QStringList());
}

TEST_F(GuiRunsTest, StartupProblemsAreSaidAndAMissingFolderFileIsAsked) {
  std::string said;
  const TellUser tell = [&](const std::string& text, const std::string&) { said = text; };
  std::ofstream(dir_.path() / "file") << "in the way";
  Session blocked;
  EXPECT_FALSE(blocked.Start({TRVMAIL_DIR, dir_.path() / "file" / "data", "", tell}));
  EXPECT_NE(said.find((dir_.path() / "file" / "data").string()), std::string::npos) << said;
  EXPECT_NE(said.find("cannot find the path"), std::string::npos) << said;  // the cause

  InstanceLock other;
  ASSERT_EQ(other.Acquire(data_dir(), "othermail", std::chrono::milliseconds(0)), rc::kOk);
  Session held;
  EXPECT_FALSE(held.Start({TRVMAIL_DIR, data_dir(), "", tell}));
  EXPECT_NE(said.find("is in use by othermail"), std::string::npos) << said;
  other.Release();

  AddToInbox({Message("a", "b")}, 0);
  std::filesystem::path inbox;
  {
    Session first;
    ASSERT_TRUE(first.Start({TRVMAIL_DIR, data_dir(), "", tell}));
    inbox = first.engine()->storages().front()->SpecialFolder(kFolderInbox)->file_path();
  }
  ASSERT_TRUE(std::filesystem::remove(inbox));
  for (int answer : {-1, 2}) {  // no answer leaves the disk alone; "create it empty" makes the file
    std::string asked;
    Session session;
    ASSERT_TRUE(session.Start({TRVMAIL_DIR, data_dir(), "", tell, [&](const std::string& text, const std::string&,
                                                                       const std::vector<std::string>& choices) {
                                 asked += text + " | " + choices.at(answer < 0 ? 1 : answer) + "\n";
                                 return answer;
                               }}));
    const std::string chosen = answer < 0 ? "Leave the folder unavailable" : "Create it empty";
    EXPECT_EQ(asked, "The file " + inbox.filename().string() +
                         " of the folder \"Inbox\" in \"Local Folders\" is missing. | " + chosen + "\n");
    EXPECT_EQ(std::filesystem::exists(inbox), answer == 2) << asked;
  }
}

}  // namespace
}  // namespace trv::gui
