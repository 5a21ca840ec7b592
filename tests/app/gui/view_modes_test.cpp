#include <gtest/gtest.h>

#include <QApplication>
#include <QHeaderView>
#include <QTableView>
#include <QTest>

#include "app/gui/session.h"
#include "core/message_import.h"
#include "tests/app/gui/gui_fixture.h"

namespace trv::gui {
namespace {

using GuiViewModesTest = GuiTest;

std::vector<std::string> Numbered(int count) {
  std::vector<std::string> texts;
  for (int i = 0; i < count; ++i) texts.push_back(Message("Note " + std::to_string(i), "body of " + std::to_string(i)));
  return texts;
}

// In each mode: Back to the folders, Enter on the folder, Enter on a message.
TEST_F(GuiViewModesTest, EachModeListsTheFolderAndOpensAMessage) {
  AddToInbox(Numbered(30), 10);
  const std::pair<ViewMode, const char*> kModes[] = {{ViewMode::kThreePanes, "main_window_three_panes.png"},
                                                     {ViewMode::kTabs, "main_window_tabs.png"},
                                                     {ViewMode::kSinglePage, "main_window_single_page.png"}};
  for (const auto& [mode, shot] : kModes) {
    SCOPED_TRACE(shot);
    Session session;
    ASSERT_TRUE(session.Start({TRVMAIL_DIR, data_dir(), "", {}}));
    MainWindow& window = *session.window();
    window.activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(&window));  // for the window's shortcuts
    QTest::keyClick(&window, Qt::Key_2, Qt::ControlModifier);  // the focus to the list, which a switch keeps
    window.view_modes().SetMode(mode);
    const bool one_at_a_time = mode != ViewMode::kThreePanes;
    EXPECT_TRUE(window.message_list().isVisible());
    EXPECT_EQ(window.reading_view().isVisible(), !one_at_a_time);
    QTest::keyClick(&window.message_list(), Qt::Key_Backspace);
    EXPECT_EQ(window.view_modes().page(), one_at_a_time ? ViewPage::kFolders : ViewPage::kList);  // no Back in panes
    QTest::keyClick(&window.folder_tree(), Qt::Key_Return);
    EXPECT_EQ(window.view_modes().page(), ViewPage::kList);
    EXPECT_EQ(window.folder_tree().isVisible(), !one_at_a_time);
    ASSERT_EQ(window.message_model().rowCount(), 30);
    window.SelectRow(2);
    QTest::keyClick(&window.message_list(), Qt::Key_Return);
    EXPECT_EQ(window.view_modes().page(), ViewPage::kMessage);
    EXPECT_TRUE(window.reading_view().isVisible());
    EXPECT_TRUE(window.reading_view().toPlainText().contains("body of 2"));
    if (mode == ViewMode::kSinglePage) EXPECT_EQ(window.view_modes().where(), "Note 2");
    QApplication::processEvents();
    EXPECT_TRUE(window.grab().save(QString(TRV_SCREENSHOT_DIR) + "/" + shot));
  }
}

TEST_F(GuiViewModesTest, SwitchKeepsTheMessageAndTheLookSurvivesARestart) {
  {
    Session session;
    ASSERT_TRUE(session.Start({TRVMAIL_DIR, data_dir(), "", {}}));
    MainWindow& window = *session.window();
    Storage& storage = *session.engine()->storages().front();
    MailFolder *parent = nullptr, *archive = nullptr;
    ASSERT_FALSE(storage.CreateFolder(storage.root(), u"Old", &parent).failed());
    ASSERT_FALSE(storage.CreateFolder(parent, u"Archive", &archive).failed());
    for (const std::string& text : Numbered(3)) {
      uint32_t key = 0;
      ASSERT_FALSE(archive->file()->Append(RecordFromMessage(text), text, &key).failed());
    }
    ASSERT_TRUE(window.SelectFolder(archive));
    window.message_list().sortByColumn(MessageListModel::kSubject, Qt::DescendingOrder);
    window.message_list().setColumnWidth(MessageListModel::kFrom, 123);
    QTest::keyClick(&window.message_list(), Qt::Key_End);  // the last row: "Note 0"
    for (ViewMode mode : {ViewMode::kTabs, ViewMode::kThreePanes, ViewMode::kSinglePage}) {
      window.view_modes().SetMode(mode);
      if (mode == ViewMode::kThreePanes) EXPECT_TRUE(window.folder_tree().isVisible() && window.reading_view().isVisible());
      EXPECT_TRUE(window.reading_view().toPlainText().contains("body of 0"));
      EXPECT_EQ(window.message_list().currentIndex().row(), 2);
    }
    // Space at the end of a short message goes on to the next one.
    window.view_modes().ShowPage(ViewPage::kMessage);
    QTest::keyClick(&window.message_list(), Qt::Key_Home);
    QTest::keyClick(&window.reading_view(), Qt::Key_Space);
    EXPECT_TRUE(window.reading_view().toPlainText().contains("body of 1"));
  }
  for (bool archive_kept : {true, false}) {
    Session session;
    ASSERT_TRUE(session.Start({TRVMAIL_DIR, data_dir(), "", {}}));
    MainWindow& window = *session.window();
    EXPECT_EQ(window.view_modes().mode(), ViewMode::kSinglePage);
    EXPECT_EQ(window.message_list().columnWidth(MessageListModel::kFrom), 123);
    EXPECT_EQ(window.message_list().horizontalHeader()->sortIndicatorOrder(), Qt::DescendingOrder);
    ASSERT_NE(window.message_model().folder(), nullptr);
    EXPECT_EQ(WideToUtf8(window.message_model().folder()->name()), archive_kept ? "Archive" : "Inbox");
    if (!archive_kept) break;
    EXPECT_EQ(window.message_model().index(0, MessageListModel::kSubject).data().toString(), "Note 2");
    Storage& storage = *session.engine()->storages().front();
    ASSERT_FALSE(storage.DeleteFolder(storage.FindFolder(u"Old")).failed());
  }
}

}  // namespace
}  // namespace trv::gui
