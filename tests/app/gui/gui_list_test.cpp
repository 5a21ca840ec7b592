#include <gtest/gtest.h>

#include <QSignalSpy>
#include <QTableView>
#include <QTest>

#include "app/gui/session.h"
#include "core/message_import.h"
#include "tests/app/gui/gui_fixture.h"

namespace trv::gui {
namespace {

// Subjects sort without their reply and forward prefixes, senders by their
// display names; equal keys keep the arrival order.
TEST_F(GuiTest, ListSortsSubjectsWithoutPrefixesAndSendersByName) {
  const auto from = [](const std::string& sender, const std::string& subject) {
    return "From: " + sender + "\r\nSubject: " + subject + "\r\n\r\nbody\r\n";
  };
  AddToInbox({from("\"zed\" <a@example.org>", "Re: bravo"), from("<b@example.org>", "alpha"),
              from("Carl <c@example.org>", "FWD: Re[2]: Charlie"), from("amy <z@example.org>", "Report"),
              from("Carl <d@example.org>", "bravo")},
             0);
  Session session;
  ASSERT_TRUE(session.Start({TRVMAIL_DIR, data_dir(), "", {}}));
  MainWindow& window = *session.window();
  MessageListModel& model = window.message_model();
  const auto subjects = [&] {
    QStringList texts;
    for (int row = 0; row < model.rowCount(); ++row) {
      texts << model.index(row, MessageListModel::kSubject).data().toString();
    }
    return texts;
  };
  window.message_list().sortByColumn(MessageListModel::kSubject, Qt::AscendingOrder);
  EXPECT_EQ(subjects(), QStringList({"alpha", "Re: bravo", "bravo", "FWD: Re[2]: Charlie", "Report"}));
  window.message_list().sortByColumn(MessageListModel::kFrom, Qt::DescendingOrder);
  EXPECT_EQ(subjects(), QStringList({"Re: bravo", "FWD: Re[2]: Charlie", "bravo", "alpha", "Report"}));

  // Messages added and removed meanwhile take the rows a new sort gives
  // them, without a reset of the list.
  QSignalSpy resets(&model, &QAbstractItemModel::modelReset);
  FolderFile& inbox = *model.folder()->file();
  uint32_t key = 0;
  for (const std::string& text : {from("Carl <e@example.org>", "later"), from("Zoe <f@example.org>", "new"),
                                  from("\"\" <a@example.org>", "last")}) {
    ASSERT_FALSE(inbox.Append(RecordFromMessage(text), text, &key).failed());
  }
  ASSERT_FALSE(inbox.Delete({model.RecordAt(3)->key}).failed());
  ASSERT_TRUE(QTest::qWaitFor([&] { return model.rowCount() == 7; }, 5000));
  EXPECT_EQ(resets.count(), 0);
  const QStringList shown = subjects();
  EXPECT_EQ(shown, QStringList({"new", "Re: bravo", "FWD: Re[2]: Charlie", "bravo", "later", "Report", "last"}));
  model.Reload();
  EXPECT_EQ(subjects(), shown);
}

}  // namespace
}  // namespace trv::gui
