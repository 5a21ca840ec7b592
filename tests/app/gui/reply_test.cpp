// Replies from the window, and address completion from stored mail.
#include <gtest/gtest.h>

#include <QAbstractItemView>
#include <QAction>
#include <QLineEdit>
#include <QMenu>
#include <QPlainTextEdit>
#include <QTest>

#include "app/gui/address_completer.h"
#include "app/gui/compose_window.h"
#include "app/gui/session.h"
#include "services/address_book.h"
#include "tests/app/gui/gui_fixture.h"

namespace trv::gui {
namespace {

std::string Mail(const std::string& from, const std::string& to, const std::string& cc = "") {
  return "From: " + from + "\r\nTo: " + to + "\r\n" + (cc.empty() ? "" : "CC: " + cc + "\r\n") +
         "Subject: s\r\nDate: Mon, 2 Mar 2026 10:00:00 +0000\r\nMessage-ID: <" +
         std::to_string(from.size() + to.size()) + "@t>\r\n\r\nbody\r\n";
}

class GuiReplyTest : public GuiTest {
 protected:
  MainWindow& Start() {
    AddToInbox({Mail("Ann <ann@example.org>", "me@example.net"),
                Mail("Bob Stone <bob@example.org>", "me@example.net", "A. <ANN@example.org>"),
                Mail("Ann <ann@example.org>", "me@example.net")},
               0);
    EXPECT_TRUE(session_.Start({TRVMAIL_DIR, data_dir(), "", {}}));
    return *session_.window();
  }
  static void Append(MailFolder& folder, const std::string& text) {
    uint32_t key = 0;
    ASSERT_FALSE(folder.file()->Append(RecordFromMessage(text), text, &key).failed());
  }
  Session session_;
};

TEST_F(GuiReplyTest, CompleterOffersStoredAddressesByWordRankedAndFollowsNewMail) {
  MainWindow& main = Start();
  Storage& local = *main.engine().storages().front();
  for (int i = 0; i < 2; ++i)
    Append(*local.SpecialFolder(kFolderSent), Mail("me@example.net", "Anton <anton@example.com>"));
  AddressBook& book = MainAddressBook(main);
  QLineEdit field;
  AddressCompleter completer(book);
  completer.Attach(&field);
  field.show();
  QTest::keyClicks(&field, "x@y.org, a");
  // Anton was written to twice (counting more), Ann seen three times in any case.
  EXPECT_EQ(completer.offered(), QStringList({"Anton <anton@example.com>", "Ann <ann@example.org>"}));
  EXPECT_TRUE(completer.popup()->isVisible());
  EXPECT_EQ(completer.completionCount(), 2);
  EXPECT_EQ(completer.Offer("stone"), 1);
  EXPECT_EQ(completer.Offer("example.net"), 1);  // a word of the address
  EXPECT_EQ(completer.Offer("xample"), 0);       // not the start of a word
  completer.Offer("x@y.org, ann");
  EXPECT_EQ(completer.pathFromIndex(completer.model()->index(0, 0)), "x@y.org, Ann <ann@example.org>, ");

  const uint64_t builds = book.builds();
  EXPECT_EQ(completer.Offer("carl"), 0);
  EXPECT_EQ(book.builds(), builds);  // nothing changed, nothing rebuilt
  Append(*local.SpecialFolder(kFolderInbox), Mail("Carl <carl@example.org>", "me@example.net"));
  EXPECT_EQ(completer.Offer("carl"), 1);
}

TEST_F(GuiReplyTest, ReplyToAllOpensAFilledComposeWindowThatCompletesAddresses) {
  MainWindow& main = Start();
  main.SelectRow(1);
  for (QAction* action : main.menu(MainWindow::Menu::kMessage)->actions()) {
    if (action->shortcut() == QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_R)) action->trigger();
  }
  auto* compose = main.findChild<ComposeWindow*>();
  ASSERT_NE(compose, nullptr);
  EXPECT_EQ(compose->to().text(), "Bob Stone <bob@example.org>, me@example.net");
  EXPECT_EQ(compose->cc().text(), "\"A.\" <ANN@example.org>");
  EXPECT_EQ(compose->subject().text(), "Re: s");
  EXPECT_TRUE(
      compose->body().toPlainText().startsWith("\n\nOn Mon, 2 Mar 2026 10:00:00 +0000, Bob Stone wrote:\n> body\n"));
  const ComposedMessage composed = compose->Composed();
  const WString id = u"<" + main.message_model().RecordAt(1)->message_id + u">";
  EXPECT_EQ(composed.in_reply_to, id);
  EXPECT_EQ(composed.references, id);
  compose->grab().save(QString(TRV_SCREENSHOT_DIR) + "/reply_window.png");

  auto* completer = qobject_cast<AddressCompleter*>(compose->cc().completer());
  ASSERT_NE(completer, nullptr);
  compose->cc().setFocus();
  QTest::keyClicks(&compose->cc(), ", sto");
  EXPECT_EQ(completer->offered(), QStringList{"Bob Stone <bob@example.org>"});
  compose->close();
}

}  // namespace
}  // namespace trv::gui
