#include <gtest/gtest.h>

#include <QLineEdit>
#include <QTableView>
#include <QTest>
#include <QToolBar>

#include "app/gui/session.h"
#include "core/message_import.h"
#include "tests/app/gui/gui_fixture.h"

namespace trv::gui {
namespace {

// The field hides the rows that do not match, follows new messages and
// shows every row again when emptied.
TEST_F(GuiTest, SearchFieldFiltersTheListToItsHits) {
  AddToInbox({Message("Walrus news", "tusks"), Message("Other", "a walrus in the body"), Message("Third", "none")}, 0);
  Session session;
  ASSERT_TRUE(session.Start({TRVMAIL_DIR, data_dir(), "", {}}));
  MainWindow& window = *session.window();
  auto* edit = window.findChild<QToolBar*>("SearchBar")->findChild<QLineEdit*>();
  ASSERT_NE(edit, nullptr);
  const auto shown = [&] {
    QStringList subjects;
    for (int row = 0; row < window.message_model().rowCount(); ++row) {
      if (!window.message_list().isRowHidden(row)) {
        subjects << window.message_model().index(row, MessageListModel::kSubject).data().toString();
      }
    }
    subjects.sort();
    return subjects;
  };
  edit->setText("walrus");
  EXPECT_TRUE(QTest::qWaitFor([&] { return shown() == QStringList({"Other", "Walrus news"}); }, 5000));
  const std::string text = Message("Late", "another walrus");
  uint32_t key = 0;
  ASSERT_FALSE(window.message_model().folder()->file()->Append(RecordFromMessage(text), text, &key).failed());
  EXPECT_TRUE(QTest::qWaitFor([&] { return shown() == QStringList({"Late", "Other", "Walrus news"}); }, 5000));
  edit->setText("subject:walrus NEAR(");
  EXPECT_TRUE(QTest::qWaitFor([&] { return shown() == QStringList({}); }, 5000));
  edit->clear();
  EXPECT_EQ(shown(), QStringList({"Late", "Other", "Third", "Walrus news"}));
}

}  // namespace
}  // namespace trv::gui
