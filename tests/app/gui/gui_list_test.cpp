#include <gtest/gtest.h>

#include <QTableView>

#include "app/gui/session.h"
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
  const auto column = [&](int c) {
    QStringList texts;
    for (int row = 0; row < window.message_model().rowCount(); ++row) {
      texts << window.message_model().index(row, c).data().toString();
    }
    return texts;
  };
  window.message_list().sortByColumn(MessageListModel::kSubject, Qt::AscendingOrder);
  EXPECT_EQ(column(MessageListModel::kSubject),
            QStringList({"alpha", "Re: bravo", "bravo", "FWD: Re[2]: Charlie", "Report"}));
  window.message_list().sortByColumn(MessageListModel::kFrom, Qt::DescendingOrder);
  EXPECT_EQ(column(MessageListModel::kSubject),
            QStringList({"Re: bravo", "FWD: Re[2]: Charlie", "bravo", "alpha", "Report"}));
}

}  // namespace
}  // namespace trv::gui
