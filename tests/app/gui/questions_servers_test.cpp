// The runs' questions answered through their real dialogs against the harness's servers: a password
// not saved, a self-signed certificate (refused, trusted, its key changed), a message too large.
#include <gtest/gtest.h>

#include <QCheckBox>
#include <QLineEdit>
#include <QMessageBox>
#include <QTest>

#include "app/gui/run_commands.h"
#include "app/gui/run_questions.h"
#include "app/gui/session.h"
#include "services/outbox.h"
#include "services/service_registry.h"
#include "store/storage.h"
#include "tests/app/gui/gui_fixture.h"
#include "tests/support/mail_servers.h"

namespace trv::gui {
namespace {

using test::MailServers;

// Shows a dialog without a modal loop, so that it is laid out, and keeps its picture.
void Shoot(QWidget& dialog, const char* name) {
  dialog.show();
  EXPECT_TRUE(dialog.grab().save(QString(TRV_SCREENSHOT_DIR) + "/" + name));
}

// Fills the real dialogs with the test's answers and keeps what was asked.
struct Answers final : RunQuestions {
  bool trust = false;
  int credentials = 0, certificates = 0, sizes = 0;
  RefusedCertificate refused;
  uint64_t size = 0, max_size = 0;

  bool AskCredentials(QWidget* parent, const LanguageTable& texts, const QString& account, const QString& server,
                      Credentials* answer) override {
    ++credentials;
    CredentialsDialog dialog(texts, account, server, *answer, parent);
    dialog.user_name().setText(QString::fromStdString(MailServers::Alice().name));
    dialog.password().setText(QString::fromStdString(MailServers::Alice().password));
    dialog.save().setChecked(true);
    Shoot(dialog, "credentials_question.png");
    *answer = dialog.answer();
    return true;
  }
  bool TrustCertificate(QWidget* parent, const LanguageTable& texts, const RefusedCertificate& r) override {
    ++certificates, refused = r;
    Shoot(*std::make_unique<CertificateDialog>(texts, r, parent), "certificate_question.png");
    return trust;
  }
  bool SendOversized(QWidget* parent, const LanguageTable& texts, const QString& account, uint64_t s,
                     uint32_t max) override {
      ++sizes, size = s, max_size = max;
    Shoot(*MakeSizeQuestion(texts, account, s, max, parent), "size_question.png");
    return false;
  }
};

class GuiQuestionsServersTest : public GuiTest {
 protected:
  // The window, and a POP3 account for Alice made after it opened (no start-up run).
  MailService* Start(const std::string& host, uint16_t port, bool tls, bool password) {
    EXPECT_TRUE(session_.Start({TRVMAIL_DIR, data_dir(), "", {}}));
    runs_ = session_.window()->findChild<RunCommands*>();
    runs_->set_questions(answers_);
    ServiceSettings s;
    s.service_name = u"Alice";
    s.incoming.host = host, s.incoming.port = port, s.incoming.timeout = 10;
    s.incoming.use_ssl = tls, s.incoming.ssl_explicit = false;
    s.incoming.user_name = MailServers::Alice().name, s.incoming.store_password = password;
    if (password) s.incoming.password = MailServers::Alice().password;
    EXPECT_EQ(CreateService(*session_.engine(), "POP3", s, &service_), rc::kOk);
    return service_;
  }
  // One run; the status line it ends with.
  std::string Run(bool receive = true) {
    EXPECT_EQ(receive ? runs_->Synchronize(service_) : service_->Start(true, false), rc::kOk);
    EXPECT_TRUE(QTest::qWaitFor([&] { return !service_->running(); }, 30000));
    QTest::qWait(50);  // for the last event's line
    return runs_->status().Lines().value(0).toStdString();
  }

  Answers answers_;
  Session session_;
  RunCommands* runs_ = nullptr;
  MailService* service_ = nullptr;
};

TEST_F(GuiQuestionsServersTest, PasswordQuestionLogsInAndSaveKeepsIt) {
  TRV_REQUIRE_SERVER(MailServers::Instance().Dovecot());
  ASSERT_TRUE(Start("127.0.0.1", MailServers::Instance().ports().pop3, false, false));
  EXPECT_EQ(Run(), "Alice: finished");
  EXPECT_TRUE(service_->settings().incoming.store_password);
  EXPECT_EQ(service_->settings().incoming.password, MailServers::Alice().password);
  EXPECT_EQ(Run(), "Alice: finished");
  EXPECT_EQ(answers_.credentials, 1) << "asked once, then saved";
}

TEST_F(GuiQuestionsServersTest, CertificateRefusedEndsTheRunTrustedIsKeptAndNotAskedAgain) {
  TRV_REQUIRE_SERVER(MailServers::Instance().Dovecot());
  const uint16_t port = MailServers::Instance().ports().pop3s;
  ASSERT_TRUE(Start("127.0.0.3", port, true, true));
  MailEngine& e = *session_.engine();
  CertificateTrust store(e.FileOps(), e.data_directory() / CertificateTrust::kFileName, e.activity_log());
  const auto trusted = [&] { return store.Load(nullptr).ok() ? store.Find("127.0.0.3", port) : std::nullopt; };
  const std::string refused = Run();
  EXPECT_NE(refused.find("Alice: The certificate of 127.0.0.3"), std::string::npos) << refused;
  EXPECT_EQ(answers_.refused.host + ":" + std::to_string(answers_.refused.port), "127.0.0.3:" + std::to_string(port));
  EXPECT_FALSE(answers_.refused.cert.sha256.empty() || answers_.refused.cert.sha1.empty());
  EXPECT_FALSE(trusted());

  answers_.trust = true;
  EXPECT_EQ(Run(), "Alice: finished");
  ASSERT_TRUE(trusted());
  EXPECT_EQ(trusted()->key_sha256, answers_.refused.cert.key_sha256);
  EXPECT_EQ(Run(), "Alice: finished");
  EXPECT_EQ(answers_.certificates, 2) << "a trusted key is not asked about";

  CertificateFacts other = answers_.refused.cert;  // another key trusted there: asked, with both keys
  other.key_sha256 = std::string(64, 'a');
  ASSERT_EQ(store.Trust("127.0.0.3", port, other), rc::kOk);
  answers_.trust = false;
  EXPECT_NE(Run(), "Alice: finished");
  EXPECT_EQ(answers_.certificates, 3);
  EXPECT_EQ(answers_.refused.trusted_key_sha256, other.key_sha256);
}

TEST_F(GuiQuestionsServersTest, OversizedMessageIsAskedAboutAndKeptWhenRefused) {
  TRV_REQUIRE_SERVER(MailServers::Instance().Postfix());
  ASSERT_TRUE(Start("127.0.0.1", MailServers::Instance().ports().pop3, false, true));
  ServiceSettings s = service_->settings();
  s.smtp.host = "127.0.0.1", s.smtp.port = MailServers::Instance().ports().smtp;
  service_->SetSettings(s);
  std::string text = "From: alice@localhost\r\nTo: bob@localhost\r\nSubject: big\r\n\r\n";
  while (text.size() < 11 * 1000 * 1000) text += std::string(998, 'x') + "\r\n";
  ASSERT_EQ(QueueForSending(*service_, text), rc::kOk);
  Run(false);
  EXPECT_EQ(answers_.sizes, 1);
  EXPECT_GT(answers_.size, answers_.max_size) << answers_.max_size;
  EXPECT_EQ(service_->storage().SpecialFolder(kFolderOutbox)->file()->MessageCount(), 1u) << "kept in the outbox";
}

}  // namespace
}  // namespace trv::gui
