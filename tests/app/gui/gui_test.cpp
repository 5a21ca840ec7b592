#include <gtest/gtest.h>

#include <spawn.h>
#include <signal.h>
#include <sys/wait.h>

#include <QApplication>
#include <QBuffer>
#include <QImage>
#include <QTextDocument>
#include <QTableView>
#include <QTest>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "app/gui/crash_guard.h"
#include "app/gui/session.h"
#include "app/gui/single_instance.h"
#include "core/engine.h"
#include "core/message_import.h"
#include "store/mail_folder.h"
#include "tests/app/gui/gui_fixture.h"

namespace trv::gui {
namespace {

TEST_F(GuiTest, ShowsInboxSortsBySubjectAndReadsTheSelectedMessage) {
  AddToInbox({Message("Charlie", "third body"), Message("Alpha", "first body"), Message("Bravo", "second body")}, 1);
  Session session;
  ASSERT_TRUE(session.Start({TRVMAIL_DIR, data_dir(), "", {}}));
  MainWindow& window = *session.window();
  EXPECT_EQ(window.windowTitle(), "Tarvo Mail");

  QTreeWidgetItem* storage = window.folder_tree().topLevelItem(0);
  ASSERT_NE(storage, nullptr);
  EXPECT_EQ(storage->child(0)->text(0), "Inbox (2/3)");  // special folders first; unread/total
  EXPECT_EQ(storage->child(0), window.folder_tree().currentItem());

  MessageListModel& model = window.message_model();
  ASSERT_EQ(model.rowCount(), 3);
  window.message_list().sortByColumn(MessageListModel::kSubject, Qt::AscendingOrder);
  QStringList subjects;
  for (int row = 0; row < 3; ++row) subjects << model.index(row, MessageListModel::kSubject).data().toString();
  EXPECT_EQ(subjects, QStringList({"Alpha", "Bravo", "Charlie"}));
  EXPECT_TRUE(model.index(0, MessageListModel::kDate).data().toString().endsWith(":00"));  // 10:00 in whole-hour zones
  // "Charlie" went in first and is the only read one.
  EXPECT_FALSE(model.index(2, 0).data(Qt::FontRole).value<QFont>().bold());
  EXPECT_TRUE(model.index(0, 0).data(Qt::FontRole).value<QFont>().bold());

  window.SelectRow(1);
  EXPECT_TRUE(window.reading_view().toPlainText().contains("second body"));
  EXPECT_TRUE(window.reading_view().toPlainText().contains("Subject: Bravo"));
  window.message_list().sortByColumn(MessageListModel::kSubject, Qt::DescendingOrder);
  EXPECT_EQ(window.message_list().currentIndex().row(), 1);  // the selection follows its message
  window.message_list().sortByColumn(MessageListModel::kDate, Qt::AscendingOrder);
  EXPECT_TRUE(window.reading_view().toPlainText().contains("second body"));

  // A message that arrives meanwhile is listed; the shown one stays selected.
  const MessageRecord shown = *model.RecordAt(window.message_list().currentIndex().row());
  const std::string text = Message("Delta", "fourth body");
  uint32_t key = 0;
  ASSERT_FALSE(model.folder()->file()->Append(RecordFromMessage(text), text, &key).failed());
  EXPECT_TRUE(QTest::qWaitFor([&] { return model.rowCount() == 4; }, 5000));
  EXPECT_EQ(storage->child(0)->text(0), "Inbox (3/4)");
  EXPECT_EQ(model.RecordAt(window.message_list().currentIndex().row())->key, shown.key);
  // A flag set elsewhere shows too: a partly downloaded message is marked.
  ASSERT_FALSE(model.folder()->file()->SetFlags(key, msgflag::kPartial, 0).failed());
  const auto delta_size = [&] {
    for (int row = 0; row < model.rowCount(); ++row) {
      if (model.RecordAt(row)->key == key) return model.index(row, MessageListModel::kSize).data().toString();
    }
    return QString();
  };
  EXPECT_TRUE(QTest::qWaitFor([&] { return delta_size().endsWith("(partial)"); }, 5000)) << delta_size().toStdString();

  QApplication::processEvents();
  const std::filesystem::path shot = std::filesystem::path(TRV_SCREENSHOT_DIR) / "main_window.png";
  ASSERT_TRUE(window.grab().save(QString::fromStdString(shot.string())));
  EXPECT_GT(std::filesystem::file_size(shot), 1000u);
}

TEST_F(GuiTest, TreeFollowsANewFolderItsMessagesAndItsDeletion) {
  Session session;
  ASSERT_TRUE(session.Start({TRVMAIL_DIR, data_dir(), "", {}}));
  MainWindow& window = *session.window();
  Storage& storage = *session.engine()->storages().front();
  MailFolder* archive = nullptr;
  ASSERT_FALSE(storage.CreateFolder(storage.root(), u"Archive", &archive).failed());
  QTreeWidgetItem* top = window.folder_tree().topLevelItem(0);
  ASSERT_EQ(top->childCount(), 6);
  EXPECT_EQ(top->child(5)->text(0), "Archive (0/0)");  // after the special folders

  ASSERT_TRUE(window.SelectFolder(archive));
  const std::string text = Message("Kept", "body");
  uint32_t key = 0;
  ASSERT_FALSE(archive->file()->Append(RecordFromMessage(text), text, &key).failed());
  EXPECT_TRUE(QTest::qWaitFor([&] { return window.folder_tree().topLevelItem(0)->child(5)->text(0) == "Archive (1/1)"; }, 5000));
  EXPECT_EQ(window.message_model().rowCount(), 1);

  ASSERT_FALSE(storage.DeleteFolder(archive).failed());
  EXPECT_EQ(window.folder_tree().topLevelItem(0)->childCount(), 5);
  EXPECT_EQ(window.message_model().folder(), nullptr);
  EXPECT_EQ(window.message_model().rowCount(), 0);
}

TEST_F(GuiTest, ReadingViewShowsTheMessagesPicturesOnly) {
  QByteArray png;
  QBuffer buffer(&png);
  ASSERT_TRUE(buffer.open(QIODevice::WriteOnly) && QImage(3, 2, QImage::Format_RGB32).save(&buffer, "PNG"));
  AddToInbox({"Subject: pic\r\nMIME-Version: 1.0\r\nContent-Type: multipart/related; boundary=b\r\n\r\n"
              "--b\r\nContent-Type: text/html\r\n\r\n<p>see <img src=\"cid:p1\"><img src=\"http://h.example/x.png\"></p>\r\n"
              "--b\r\nContent-Type: image/png\r\nContent-ID: <p1>\r\nContent-Transfer-Encoding: base64\r\n\r\n" +
              png.toBase64().toStdString() + "\r\n--b--\r\n"},
             0);
  Session session;
  ASSERT_TRUE(session.Start({TRVMAIL_DIR, data_dir(), "", {}}));
  session.window()->SelectRow(0);
  ReadingView& view = session.window()->reading_view();
  EXPECT_TRUE(view.toPlainText().contains("see"));
  EXPECT_EQ(view.loadResource(QTextDocument::ImageResource, QUrl("cid:p1")).value<QImage>().size(), QSize(3, 2));
  EXPECT_TRUE(view.loadResource(QTextDocument::ImageResource, QUrl("http://h.example/x.png")).isNull());
}

TEST_F(GuiTest, MissingLanguageFileIsSaidAndNoWindowIsMade) {
  std::string said;
  Session session;
  EXPECT_FALSE(session.Start({dir_.path(), data_dir(), "", [&](const std::string& text, const std::string& caption) {
                                said = caption + ": " + text;
                              }}));
  EXPECT_EQ(said, "Tarvo Mail 2: Can't find trvmllng.enu");
  EXPECT_EQ(session.window(), nullptr);
  EXPECT_EQ(session.engine(), nullptr);
}

TEST_F(GuiTest, WindowSizeIsKeptBetweenRuns) {
  {
    Session first;
    ASSERT_TRUE(first.Start({TRVMAIL_DIR, data_dir(), "", {}}));
    ASSERT_NE(first.window()->size(), QSize(640, 480));
    first.window()->resize(640, 480);
  }
  Session second;
  ASSERT_TRUE(second.Start({TRVMAIL_DIR, data_dir(), "", {}}));
  EXPECT_EQ(second.window()->size(), QSize(640, 480));
}

TEST_F(GuiTest, LanguageTableLines) {
  const std::filesystem::path file = dir_.path() / "table";
  std::ofstream(file) << "# note\tnot a string\r\nA\tone\\ttwo\\nthree\\\\\r\nno tab here\n\nB\t\nA2\tx";
  LanguageTable table;
  ASSERT_FALSE(table.Load(file).failed());
  EXPECT_EQ(table.size(), 3u);
  EXPECT_EQ(table.Text("A"), "one\ttwo\nthree\\");
  EXPECT_EQ(table.Text("A2"), "x");  // the last line needs no line end
  EXPECT_EQ(table.Text("missing"), "");
}

TEST_F(GuiTest, ExceptionReportShowsTheLow32BitsOfTheAddress) {
  EXPECT_EQ(ExceptionText(0xC0000005, static_cast<uintptr_t>(0x7FFF0000ABCDULL)),
            "Exception code C0000005h at address 0000ABCDh");
}

TEST_F(GuiTest, SecondInstanceWaitsThenHandsItsCommandLineOver) {
  SingleInstance first(dir_.path(), std::chrono::milliseconds(0));
  SingleInstance second(dir_.path(), std::chrono::milliseconds(0));
  ASSERT_EQ(first.Check(""), SingleInstance::Outcome::kFirst);
  EXPECT_EQ(second.Check("x"), SingleInstance::Outcome::kGaveUp);  // locked, but no window yet

  ASSERT_FALSE(first.Listen().failed());
  QString handed;
  QObject::connect(&first, &SingleInstance::activateRequested, [&](const QString& line) { handed = line; });
  SingleInstance::Outcome outcome{};
  std::thread later([&] { outcome = SingleInstance(dir_.path(), std::chrono::milliseconds(0)).Check("mailto:b@c.d"); });
  EXPECT_TRUE(QTest::qWaitFor([&] { return !handed.isEmpty(); }, 5000));
  later.join();
  EXPECT_EQ(outcome, SingleInstance::Outcome::kHandedOver);
  EXPECT_EQ(handed, "mailto:b@c.d");
}

// Runs the program with `arg` (none when empty); its process id, or -1.
pid_t Spawn(const char* arg) {
  std::string program = TRVMAIL_DIR "/trvmail";
  char* argv[] = {program.data(), const_cast<char*>(arg), nullptr};
  if (*arg == '\0') argv[1] = nullptr;
  pid_t pid = -1;
  return ::posix_spawn(&pid, argv[0], nullptr, nullptr, argv, environ) == 0 ? pid : -1;
}

// Its exit code; -1 for a process killed, or still running after 15 s (then
// it is killed).
int ExitCode(pid_t pid) {
  int status = 0;
  for (int i = 0; i < 300; ++i) {
    if (::waitpid(pid, &status, WNOHANG) == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  ::kill(pid, SIGKILL);
  ::waitpid(pid, &status, 0);
  return -1;
}

TEST_F(GuiTest, RunningProgramTakesLaterStartsAndClosesOnUninstall) {
  const pid_t first = Spawn("");
  ASSERT_GT(first, 0);
  const std::filesystem::path socket = dir_.path() / SingleInstance::kWindowClass;
  EXPECT_TRUE(QTest::qWaitFor([&] { return std::filesystem::exists(socket); }, 20000));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(ExitCode(Spawn("mailto:b@c.d")), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));  // handed over, no wait
  EXPECT_EQ(ExitCode(Spawn("-uninstallx")), 0);
  EXPECT_EQ(ExitCode(first), 0);  // closed by the request
  EXPECT_FALSE(std::filesystem::exists(socket));
}

}  // namespace
}  // namespace trv::gui

