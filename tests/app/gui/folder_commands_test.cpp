#include <gtest/gtest.h>

#include <QApplication>
#include <QDropEvent>
#include <QTableView>
#include <QTest>
#include <thread>

#include "app/gui/drag_data.h"
#include "app/gui/folder_commands.h"
#include "app/gui/message_commands.h"
#include "app/gui/session.h"
#include "app/gui/user_questions.h"
#include "tests/app/gui/gui_fixture.h"

namespace trv::gui {
namespace {

// Answers the commands' questions as the test says, and keeps what they tell.
struct Answers : UserQuestions {
  bool AskText(QWidget*, const QString&, const QString&, QString* text) override {
    if (texts.isEmpty()) return false;
    *text = texts.takeFirst();
    return true;
  }
  bool AskChoice(QWidget*, const QString&, const QString&, const QStringList& choices, int* chosen) override {
    *chosen = static_cast<int>(choices.indexOf(choice));
    return *chosen >= 0;
  }
  bool Confirm(QWidget*, const QString&, const QString&) override { return confirm; }
  void Tell(QWidget*, const QString&, const QString& text) override { told << text; }

  QStringList texts;
  QString choice;
  bool confirm = true;
  QStringList told;
};

class GuiFoldersTest : public GuiTest {
 protected:
  void Start() {
    ASSERT_TRUE(session_.Start({TRVMAIL_DIR, data_dir(), "", {}}));
    window_ = session_.window();
    folders_ = window_->findChild<FolderCommands*>();
    messages_ = window_->findChild<MessageCommands*>();
    ASSERT_TRUE(folders_ != nullptr && messages_ != nullptr);
    folders_->set_questions(answers_);
    messages_->set_questions(answers_);
  }
  MailFolder* Find(const char16_t* path) { return session_.engine()->FindFolder(path); }
  QString Label(const char16_t* path) {
    QTreeWidgetItem* item = window_->folder_tree().ItemOf(Find(path));
    return item == nullptr ? QString() : item->text(0);
  }
  bool LabelBecomes(const char16_t* path, const QString& label) {
    return QTest::qWaitFor([&] { return Label(path) == label; }, 5000);
  }
  void SelectRows(std::initializer_list<int> rows) {
    window_->message_list().clearSelection();
    for (int row : rows) {
      window_->message_list().selectionModel()->select(window_->message_model().index(row, 0),
                                                       QItemSelectionModel::Select | QItemSelectionModel::Rows);
    }
  }

  Session session_;
  MainWindow* window_ = nullptr;
  FolderCommands* folders_ = nullptr;
  MessageCommands* messages_ = nullptr;
  Answers answers_;
};

TEST_F(GuiFoldersTest, FolderCommandsFollowTheEngineAndShowItsRefusals) {
  Start();
  FolderTree& tree = window_->folder_tree();
  tree.setCurrentItem(tree.topLevelItem(0));
  answers_.texts = {"Archive", "2026", "archive"};
  ASSERT_TRUE(folders_->NewFolder());
  EXPECT_EQ(Label(u"Local Folders/Archive"), "Archive (0/0)");
  ASSERT_TRUE(folders_->NewFolder());  // under the new folder, now selected
  ASSERT_NE(Find(u"Local Folders/Archive/2026"), nullptr);
  tree.setCurrentItem(tree.topLevelItem(0));
  EXPECT_FALSE(folders_->NewFolder());
  ASSERT_EQ(answers_.told.size(), 1);
  EXPECT_TRUE(answers_.told[0].contains("\"archive\"") && answers_.told[0].contains("already there"))
      << answers_.told[0].toStdString();

  ASSERT_TRUE(window_->SelectFolder(Find(u"Local Folders/Archive/2026")));
  answers_.texts = {"Old"};
  ASSERT_TRUE(folders_->RenameFolder());
  answers_.choice = "Local Folders";
  ASSERT_TRUE(folders_->MoveFolder());
  MailFolder* old = Find(u"Local Folders/Old");
  ASSERT_NE(old, nullptr);
  // A folder dropped onto another moves under it; into its own subtree it is refused.
  std::unique_ptr<QMimeData> drag(FolderMimeData(Find(u"Local Folders/Archive")));
  ASSERT_TRUE(tree.Drop(*drag, tree.ItemOf(old), Qt::MoveAction));
  ASSERT_NE(Find(u"Local Folders/Old/Archive"), nullptr);
  drag.reset(FolderMimeData(old));
  ASSERT_TRUE(tree.Drop(*drag, tree.ItemOf(Find(u"Local Folders/Old/Archive")), Qt::MoveAction));
  ASSERT_EQ(answers_.told.size(), 2);
  EXPECT_TRUE(answers_.told[1].contains("could not be moved")) << answers_.told[1].toStdString();

  ASSERT_TRUE(window_->SelectFolder(Find(u"Local Folders/Inbox")));
  EXPECT_TRUE(window_->grab().save(QString(TRV_SCREENSHOT_DIR) + "/folder_tree.png"));
  EXPECT_FALSE(folders_->DeleteFolder());
  ASSERT_EQ(answers_.told.size(), 3);
  EXPECT_TRUE(answers_.told[2].contains("Local Folders/Inbox")) << answers_.told[2].toStdString();
  ASSERT_TRUE(window_->SelectFolder(Find(u"Local Folders/Old/Archive")));  // shown while its parent goes
  answers_.confirm = false;
  EXPECT_FALSE(folders_->DeleteFolder());
  ASSERT_TRUE(window_->SelectFolder(old));
  answers_.confirm = true;
  ASSERT_TRUE(folders_->DeleteFolder());
  EXPECT_EQ(Find(u"Local Folders/Old"), nullptr);
  EXPECT_EQ(tree.topLevelItem(0)->childCount(), 5);
}

TEST_F(GuiFoldersTest, MessagesAreDeletedMarkedAndDraggedOntoFolders) {
  AddToInbox({Message("One", "1"), Message("Two", "2"), Message("Three", "3"), Message("Four", "4")}, 0);
  Start();
  MessageListModel& model = window_->message_model();
  MailFolder* archive = nullptr;
  Storage& storage = *session_.engine()->storages().front();
  ASSERT_FALSE(storage.CreateFolder(storage.root(), u"Archive", &archive).failed());
  ASSERT_TRUE(window_->SelectFolder(Find(u"Local Folders/Inbox")));
  ASSERT_EQ(model.rowCount(), 4);

  // Two deleted: they go to Deleted and the next message is selected, then
  // marked read once shown a moment.
  SelectRows({0, 1});
  window_->activateWindow();
  ASSERT_TRUE(QTest::qWaitForWindowActive(window_));
  window_->message_list().setFocus();
  QTest::keyClick(&window_->message_list(), Qt::Key_Delete);  // the tree's Delete stays out of it
  EXPECT_TRUE(LabelBecomes(u"Local Folders/Deleted", "Deleted (2/2)"));
  ASSERT_EQ(model.rowCount(), 2);
  EXPECT_EQ(model.RecordAt(window_->message_list().currentIndex().row())->subject, u"Three");
  EXPECT_TRUE(LabelBecomes(u"Local Folders/Inbox", "Inbox (1/2)"));
  EXPECT_TRUE(window_->message_list().selectionModel()->isRowSelected(0));
  ASSERT_TRUE(messages_->MarkSelected(false));
  EXPECT_TRUE(LabelBecomes(u"Local Folders/Inbox", "Inbox (2/2)"));
  SelectRows({0, 1});
  ASSERT_TRUE(messages_->MarkSelected(true));
  EXPECT_TRUE(LabelBecomes(u"Local Folders/Inbox", "Inbox (0/2)"));

  // Dragged rows move, or copy with the copy action; the own folder and a
  // storage item take no drop.
  FolderTree& tree = window_->folder_tree();
  std::unique_ptr<QMimeData> drag(model.mimeData({model.index(0, 0), model.index(0, 1)}));
  ASSERT_NE(drag, nullptr);
  EXPECT_FALSE(tree.Drop(*drag, tree.ItemOf(model.folder()), Qt::MoveAction));
  EXPECT_FALSE(tree.Drop(*drag, tree.topLevelItem(0), Qt::MoveAction));
  ASSERT_TRUE(tree.Drop(*drag, tree.ItemOf(archive), Qt::MoveAction));
  drag.reset(model.mimeData({model.index(1, 0)}));
  // As the platform drops it, with Ctrl held: a copy.
  const QPoint at = tree.visualItemRect(tree.ItemOf(archive)).center();
  QDragEnterEvent enter(at, Qt::CopyAction | Qt::MoveAction, drag.get(), Qt::LeftButton, Qt::ControlModifier);
  QApplication::sendEvent(tree.viewport(), &enter);
  QDropEvent drop(QPointF(at), Qt::CopyAction | Qt::MoveAction, drag.get(), Qt::LeftButton, Qt::ControlModifier);
  QApplication::sendEvent(tree.viewport(), &drop);
  EXPECT_EQ(drop.dropAction(), Qt::CopyAction);
  EXPECT_TRUE(LabelBecomes(u"Local Folders/Archive", "Archive (0/2)"));
  EXPECT_TRUE(LabelBecomes(u"Local Folders/Inbox", "Inbox (0/1)"));

  // In Deleted, a delete is for good, after the confirmation.
  ASSERT_TRUE(window_->SelectFolder(Find(u"Local Folders/Deleted")));
  SelectRows({0, 1});
  answers_.confirm = false;
  EXPECT_FALSE(messages_->DeleteSelected());
  answers_.confirm = true;
  ASSERT_TRUE(messages_->DeleteSelected());
  EXPECT_TRUE(LabelBecomes(u"Local Folders/Deleted", "Deleted (0/0)"));
  EXPECT_TRUE(answers_.told.isEmpty()) << answers_.told.join("\n").toStdString();
}

TEST_F(GuiFoldersTest, StoragesClosedAtRunTimeLeaveTheWindowWorking) {
  Start();
  MailEngine& engine = *session_.engine();
  Storage* second = nullptr;
  ASSERT_FALSE(engine.CreateServiceStorage(u"Second", &second).failed());
  ASSERT_TRUE(window_->SelectFolder(second->SpecialFolder(kFolderInbox)));
  ASSERT_FALSE(engine.DeleteStorage(second).failed());
  EXPECT_EQ(window_->folder_tree().topLevelItemCount(), 1);
  EXPECT_EQ(window_->message_model().folder(), nullptr);

  // A folder made on a worker thread (as an IMAP4 run does) is shown.
  std::thread([&] { ASSERT_FALSE(engine.storages().front()->CreateFolder(Find(u"Local Folders"), u"Fetched", nullptr).failed()); }).join();
  EXPECT_TRUE(QTest::qWaitFor([&] { return Label(u"Local Folders/Fetched") == "Fetched (0/0)"; }, 5000));

  ASSERT_TRUE(window_->SelectFolder(Find(u"Local Folders/Drafts")));
  ASSERT_FALSE(engine.MoveDataDirectory(dir_.path() / "moved", {}).failed());
  // The storage opened again is shown with its new files, which are observed.
  MailFolder* inbox = Find(u"Local Folders/Inbox");
  ASSERT_NE(inbox, nullptr);
  EXPECT_EQ(window_->message_model().folder(), inbox);
  const std::string text = Message("Later", "body");
  uint32_t key = 0;
  ASSERT_FALSE(inbox->file()->Append(RecordFromMessage(text), text, &key).failed());
  EXPECT_TRUE(LabelBecomes(u"Local Folders/Inbox", "Inbox (1/1)"));
  EXPECT_TRUE(QTest::qWaitFor([&] { return window_->message_model().rowCount() == 1; }, 5000));
}

}  // namespace
}  // namespace trv::gui
