// The account editor: the port rules driven through the three protocol
// pages' widgets, bad input refused at its field with nothing saved, an
// account made with a non-ASCII password, and one deleted with its storage.
#include <gtest/gtest.h>

#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QRadioButton>
#include <QTabWidget>

#include "app/gui/account_commands.h"
#include "app/gui/account_editor.h"
#include "app/gui/session.h"
#include "app/gui/user_questions.h"
#include "base/file_io.h"
#include "services/service_registry.h"
#include "store/storage.h"
#include "tests/app/gui/gui_fixture.h"

namespace trv::gui {
namespace {

using GuiAccountEditorTest = GuiTest;

// A new account's fields, all acceptable.
void FillValid(AccountEditor& editor, const QString& name) {
  editor.general().name_edit().setText(name);
  editor.general().email_edit().setText("me@example.org");
  editor.incoming().host_edit().setText("mail.example.org");
  editor.outgoing().host_edit().setText("smtp.example.org");
}

TEST_F(GuiAccountEditorTest, PortRulesOnTheThreeProtocolPages) {
  Session session;
  ASSERT_TRUE(session.Start({TRVMAIL_DIR, data_dir(), "", {}}));
  enum Port { kPlain, kImplicit, kOdd };
  enum Step { kTick, kUntick, kChooseExplicit, kChooseImplicit };
  const struct {
    Port start;
    bool ssl, explicit_mode;
    Step step;
    Port expected;
  } kCases[] = {
      {kPlain, false, false, kTick, kImplicit},         {kPlain, false, true, kTick, kPlain},
      {kImplicit, true, false, kUntick, kPlain},        {kOdd, false, false, kTick, kOdd},
      {kOdd, true, false, kUntick, kOdd},               {kImplicit, true, false, kChooseExplicit, kPlain},
      {kPlain, true, true, kChooseImplicit, kImplicit}, {kOdd, true, true, kChooseImplicit, kOdd},
  };
  for (MailProtocol protocol : {MailProtocol::kSmtp, MailProtocol::kPop3, MailProtocol::kImap4}) {
    AccountEditor editor(*session.engine(), session.window()->texts(), nullptr,
                         protocol == MailProtocol::kImap4 ? "IMAP4" : "POP3");
    ProtocolPage& page = protocol == MailProtocol::kSmtp ? editor.outgoing() : editor.incoming();
    const int32_t ports[] = {PlainPort(protocol), ImplicitSslPort(protocol), 2525};
    for (size_t i = 0; i < std::size(kCases); ++i) {
      const auto& c = kCases[i];
      ProtocolSettings start(ports[c.start]);
      start.use_ssl = c.ssl, start.ssl_explicit = c.explicit_mode;
      page.Load(start);
      if (c.step == kTick || c.step == kUntick) {
        page.ssl_box().setChecked(c.step == kTick);
      } else {
        SslOptionsDialog* dialog = page.OpenSslOptions();
        (c.step == kChooseExplicit ? dialog->explicit_button() : dialog->implicit_button()).setChecked(true);
        dialog->accept();
        EXPECT_EQ(page.ssl_options().explicit_mode, c.step == kChooseExplicit);
      }
      EXPECT_EQ(page.port_edit().text().toInt(), ports[c.expected]) << page.ProtocolName().toStdString() << " case " << i;
    }
    // The provider preset: its host, SSL on, implicit, on the implicit-SSL port.
    editor.preset_box().setCurrentIndex(1);
    emit editor.preset_box().activated(1);
    EXPECT_TRUE(page.host_edit().text().endsWith(".mail.example.net") && page.ssl_box().isChecked());
    EXPECT_EQ(page.port_edit().text().toInt(), ImplicitSslPort(protocol)) << page.ProtocolName().toStdString();
  }
}

TEST_F(GuiAccountEditorTest, BadInputIsRefusedAtItsFieldAndNothingIsSaved) {
  Session session;
  ASSERT_TRUE(session.Start({TRVMAIL_DIR, data_dir(), "", {}}));
  MailEngine& engine = *session.engine();
  const LanguageTable& texts = session.window()->texts();
  const std::string password = "p\xC3\xA4sswort \xE2\x82\xAC";  // "pässwort €"
  {  // the account the duplicate name collides with, made through the editor
    AccountEditor editor(engine, texts, nullptr, "IMAP4");
    FillValid(editor, "Home");
    editor.incoming().user_edit().setText("me");
    editor.incoming().password_edit().setText(QString::fromStdString(password));
    editor.incoming().store_box().setChecked(true);
    ASSERT_EQ(editor.Save(), rc::kOk) << editor.error_label().text().toStdString();
    ASSERT_NE(editor.service(), nullptr);
    // Read back from the file: the cipher took the UTF-8 bytes and gives them back.
    EXPECT_EQ(editor.service()->settings().incoming.password, password);
    EXPECT_EQ(editor.service()->settings().incoming.port, 143);
    EXPECT_NE(session.window()->folder_tree().findItems("Home", Qt::MatchStartsWith).size(), 0);
  }
  const std::filesystem::path file = engine.data_directory() / MailEngine::kSettingsFileName;
  std::string before;
  ASSERT_EQ(ReadWholeFile(file, &before), rc::kOk);
  EXPECT_EQ(before.find(password), std::string::npos) << "only the enciphered password is kept";

  const struct {
    const char* what;
    std::function<QLineEdit&(AccountEditor&)> field;
    QString text;
  } kCases[] = {
      {"port 0", [](AccountEditor& e) -> QLineEdit& { return e.incoming().port_edit(); }, "0"},
      {"port 70000", [](AccountEditor& e) -> QLineEdit& { return e.outgoing().port_edit(); }, "70000"},
      {"empty host", [](AccountEditor& e) -> QLineEdit& { return e.incoming().host_edit(); }, " "},
      {"duplicate name", [](AccountEditor& e) -> QLineEdit& { return e.general().name_edit(); }, "hOME"},
      {"unreadable address", [](AccountEditor& e) -> QLineEdit& { return e.general().email_edit(); }, "me at home"},
  };
  for (const auto& c : kCases) {
    AccountEditor editor(engine, texts, nullptr, "POP3");
    FillValid(editor, "Work");
    QLineEdit& field = c.field(editor);
    field.setText(c.text);
    EXPECT_EQ(editor.Save(), rc::kInvalidArg) << c.what;
    EXPECT_EQ(editor.error().field, &field) << c.what;
    EXPECT_TRUE(editor.tabs().currentWidget()->isAncestorOf(&field)) << c.what << ": its page is shown";
    EXPECT_FALSE(editor.error_label().text().isEmpty()) << c.what;
    EXPECT_EQ(editor.service(), nullptr) << c.what;
  }
  // An edit cancelled leaves the account as it was.
  MailService* home = FindService(engine, "Home");
  ASSERT_NE(home, nullptr);
  {
    AccountEditor editor(engine, texts, home, {});
    editor.general().name_edit().setText("Elsewhere");
    editor.reject();
  }
  EXPECT_EQ(home->settings().service_name, u"Home");
  EXPECT_EQ(MailServices(engine).size(), 1u);
  std::string after;
  ASSERT_EQ(ReadWholeFile(file, &after), rc::kOk);
  EXPECT_EQ(after, before);

  // Deleted from the menu's command, storage and all.
  struct Answers : UserQuestions {
    bool Confirm(QWidget*, const QString&, const QString&) override { return true; }
    bool AskChoice(QWidget*, const QString&, const QString&, const QStringList&, int* chosen) override {
      *chosen = 1;
      return true;
    }
  } answers;
  auto& commands = *session.window()->findChild<AccountCommands*>();
  commands.set_questions(answers);
  const size_t storages = engine.storages().size();
  EXPECT_TRUE(commands.DeleteAccount(home));
  EXPECT_TRUE(MailServices(engine).empty());
  EXPECT_EQ(engine.storages().size(), storages - 1);
}

}  // namespace
}  // namespace trv::gui
