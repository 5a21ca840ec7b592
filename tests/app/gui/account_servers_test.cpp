// An IMAP4 account made in the account editor against the harness's
// Dovecot, synchronized from the window, then its folder options changed on
// the Folders page and saved.
#include <gtest/gtest.h>

#include <QCheckBox>
#include <QLineEdit>
#include <QTabWidget>
#include <QTest>
#include <QTreeWidget>

#include "app/gui/account_commands.h"
#include "app/gui/account_editor.h"
#include "app/gui/run_commands.h"
#include "app/gui/session.h"
#include "services/imap4_service.h"
#include "store/storage.h"
#include "tests/app/gui/gui_fixture.h"
#include "tests/support/mail_servers.h"

namespace trv::gui {
namespace {

using test::MailServers;
using GuiAccountServersTest = GuiTest;

TEST_F(GuiAccountServersTest, AccountMadeInTheEditorSynchronizesAndKeepsFolderOptions) {
  TRV_REQUIRE_SERVER(MailServers::Instance().Dovecot());
  const std::string alice = MailServers::Alice().name;
  for (const auto& file : MailServers::Instance().Messages(alice)) std::filesystem::remove(file);
  for (const char* subject : {"One", "Two"}) {
    ASSERT_FALSE(MailServers::Instance().Deliver(alice, "Subject: " + std::string(subject) + "\n\nbody\n").empty());
  }
  Session session;
  ASSERT_TRUE(session.Start({TRVMAIL_DIR, data_dir(), "", {}}));
  MainWindow& window = *session.window();
  auto& accounts = *window.findChild<AccountCommands*>();

  AccountEditor made(*session.engine(), window.texts(), nullptr, "IMAP4", &window);
  made.general().name_edit().setText("Alice");
  made.general().email_edit().setText("alice@example.org");
  made.incoming().host_edit().setText("127.0.0.1");
  made.incoming().port_edit().setText(QString::number(MailServers::Instance().ports().imap));
  made.incoming().user_edit().setText(QString::fromStdString(alice));
  made.incoming().password_edit().setText(QString::fromStdString(MailServers::Alice().password));
  made.incoming().store_box().setChecked(true);
  made.outgoing().host_edit().setText("127.0.0.1");
  ASSERT_EQ(made.Save(), rc::kOk) << made.error_label().text().toStdString();
  auto* service = dynamic_cast<Imap4Service*>(made.service());
  ASSERT_NE(service, nullptr);
  EXPECT_EQ(service->settings().incoming.password, MailServers::Alice().password) << "stored, and read back";

  // The new storage is in the tree; a run fills its Inbox.
  ASSERT_TRUE(window.SelectFolder(service->storage().SpecialFolder(kFolderInbox)));
  ASSERT_EQ(window.findChild<RunCommands*>()->Synchronize(service), rc::kOk);
  EXPECT_TRUE(QTest::qWaitFor([&] { return window.message_model().rowCount() == 2; }, 30000));
  service->WaitIdle();
  ASSERT_EQ(service->pending_error(), rc::kOk);

  AccountEditor* editor = accounts.EditAccount(service);
  ASSERT_NE(editor, nullptr);
  ASSERT_NE(editor->folders(), nullptr);
  QTreeWidgetItem* inbox = editor->folders()->ItemOf("INBOX");
  ASSERT_NE(inbox, nullptr);
  inbox->setCheckState(ImapFoldersPage::kUpload, Qt::Unchecked);
  inbox->setCheckState(ImapFoldersPage::kDownloadNew, Qt::Checked);
  editor->tabs().setCurrentWidget(&editor->incoming());
  QApplication::processEvents();
  EXPECT_TRUE(editor->grab().save(QString(TRV_SCREENSHOT_DIR) + "/account_editor.png"));
  editor->tabs().setCurrentWidget(editor->folders());
  QApplication::processEvents();
  EXPECT_TRUE(editor->grab().save(QString(TRV_SCREENSHOT_DIR) + "/account_editor_folders.png"));
  ASSERT_EQ(editor->Save(), rc::kOk) << editor->error_label().text().toStdString();
  editor->close();

  // Read back from the settings: the options as changed.
  ASSERT_EQ(service->LoadFolders(), rc::kOk);
  MutexLock lock(service->folders_mutex());
  const Imap4FolderSync* record = service->folders().FindByServerPath(u"INBOX");
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->sync, imap4sync::kDownload | imap4sync::kDownloadNew | imap4sync::kDeleteOnLocal |
                              imap4sync::kDeleteOnServer);
}

}  // namespace
}  // namespace trv::gui
