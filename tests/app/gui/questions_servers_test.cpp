// The runs' questions answered from a test against the harness's servers,
// each through its real dialog: the password of an account that has none
// (saved when asked), a self-signed POP3S certificate refused and then
// trusted, and a message above Postfix's size limit not sent.
#include <gtest/gtest.h>

#include <QCheckBox>
#include <QLineEdit>
#include <QMessageBox>
#include <QTest>

#include "app/gui/run_commands.h"
#include "app/gui/run_questions.h"
#include "app/gui/session.h"
#include "core/engine.h"
#include "services/outbox.h"
#include "services/service_registry.h"
#include "store/mail_folder.h"
#include "store/storage.h"
#include "tests/app/gui/gui_fixture.h"
#include "tests/support/mail_servers.h"

namespace trv::gui {
namespace {

using test::MailServers;
using GuiQuestionsServersTest = GuiTest;

QString Shot(const char* name) { return QString(TRV_SCREENSHOT_DIR) + "/" + name; }

// Fills the real dialogs with the test's answers and keeps what was asked.
struct Answers final : RunQuestions {
  std::string user, password;
  bool trust = false;
  int credentials = 0, certificates = 0, sizes = 0;
  RefusedCertificate refused;
  uint64_t size = 0, max_size = 0;

  bool AskCredentials(QWidget* parent, const LanguageTable& texts, const QString& account, const QString& server,
                      Credentials* answer) override {
    ++credentials;
    CredentialsDialog dialog(texts, account, server, *answer, parent);
    dialog.user_name().setText(QString::fromStdString(user));
    dialog.password().setText(QString::fromStdString(password));
    dialog.save().setChecked(true);
    dialog.show();  // laid out as the person sees it, without a modal loop
    EXPECT_TRUE(dialog.grab().save(Shot("credentials_question.png")));
    *answer = dialog.answer();
    return true;
  }
  bool TrustCertificate(QWidget* parent, const LanguageTable& texts, const RefusedCertificate& r) override {
    ++certificates;
    refused = r;
    CertificateDialog dialog(texts, r, parent);
    dialog.show();
    EXPECT_TRUE(dialog.grab().save(Shot("certificate_question.png")));
    return trust;
  }
  bool SendOversized(QWidget* parent, const LanguageTable& texts, const QString& account, uint64_t s,
                     uint32_t max) override {
    ++sizes, size = s, max_size = max;
    const std::unique_ptr<QMessageBox> box = MakeSizeQuestion(texts, account, s, max, parent);
    box->show();
    EXPECT_TRUE(box->grab().save(Shot("size_question.png")));
    return false;
  }
};

class Window {
 public:
  explicit Window(const std::filesystem::path& data) {
    EXPECT_TRUE(session_.Start({TRVMAIL_DIR, data, "", {}}));
    runs_ = session_.window()->findChild<RunCommands*>();
    runs_->set_questions(answers);
  }
  // A POP3 account for Alice made after the start (no start-up run).
  MailService* Add(const std::string& host, uint16_t port, bool tls, bool password) {
    ServiceSettings s;
    s.service_name = u"Alice";
    s.incoming.host = host, s.incoming.port = port, s.incoming.timeout = 10;
    s.incoming.use_ssl = tls, s.incoming.ssl_explicit = false;
    s.incoming.user_name = MailServers::Alice().name, s.incoming.store_password = password;
    if (password) s.incoming.password = MailServers::Alice().password;
    MailService* created = nullptr;
    EXPECT_EQ(CreateService(*session_.engine(), "POP3", s, &created), rc::kOk);
    return created;
  }
  // One run; the status line it ends with.
  std::string Run(MailService* service, bool receive = true) {
    EXPECT_EQ(receive ? runs_->Synchronize(service) : service->Start(true, false), rc::kOk);
    EXPECT_TRUE(QTest::qWaitFor([&] { return !service->running(); }, 30000));
    QTest::qWait(50);  // the last event's line
    return runs_->status().Lines().value(0).toStdString();
  }
  MailEngine& engine() { return *session_.engine(); }

  Answers answers;

 private:
  Session session_;
  RunCommands* runs_ = nullptr;
};

TEST_F(GuiQuestionsServersTest, PasswordQuestionLogsInAndSaveKeepsIt) {
  TRV_REQUIRE_SERVER(MailServers::Instance().Dovecot());
  Window w(data_dir());
  w.answers.user = MailServers::Alice().name;
  w.answers.password = MailServers::Alice().password;
  MailService* service = w.Add("127.0.0.1", MailServers::Instance().ports().pop3, false, false);
  ASSERT_NE(service, nullptr);
  EXPECT_EQ(w.Run(service), "Alice: finished");
  EXPECT_EQ(w.answers.credentials, 1);
  EXPECT_TRUE(service->settings().incoming.store_password);
  EXPECT_EQ(service->settings().incoming.password, MailServers::Alice().password);
  EXPECT_EQ(w.Run(service), "Alice: finished");
  EXPECT_EQ(w.answers.credentials, 1) << "a saved password is not asked for";
}

TEST_F(GuiQuestionsServersTest, CertificateRefusedEndsTheRunTrustedIsKeptAndNotAskedAgain) {
  TRV_REQUIRE_SERVER(MailServers::Instance().Dovecot());
  const uint16_t port = MailServers::Instance().ports().pop3s;
  Window w(data_dir());
  MailService* service = w.Add("127.0.0.3", port, true, true);
  ASSERT_NE(service, nullptr);
  CertificateTrust store(w.engine().FileOps(), w.engine().data_directory() / CertificateTrust::kFileName,
                         w.engine().activity_log());
  const auto trusted = [&] {
    EXPECT_EQ(store.Load(nullptr), rc::kOk);
    return store.Find("127.0.0.3", port);
  };
  const std::string refused = w.Run(service);
  EXPECT_EQ(refused.rfind("Alice: ", 0), 0u);
  EXPECT_NE(refused.find("self-signed"), std::string::npos) << refused;
  EXPECT_EQ(w.answers.certificates, 1);
  EXPECT_EQ(w.answers.refused.host, "127.0.0.3");
  EXPECT_EQ(w.answers.refused.port, port);
  EXPECT_FALSE(w.answers.refused.cert.sha256.empty() || w.answers.refused.cert.sha1.empty());
  EXPECT_FALSE(trusted());

  w.answers.trust = true;
  EXPECT_EQ(w.Run(service), "Alice: finished");
  EXPECT_EQ(w.answers.certificates, 2);
  ASSERT_TRUE(trusted());
  EXPECT_EQ(trusted()->key_sha256, w.answers.refused.cert.key_sha256);
  EXPECT_EQ(w.Run(service), "Alice: finished");
  EXPECT_EQ(w.answers.certificates, 2) << "a trusted key is not asked about";

  CertificateFacts other = w.answers.refused.cert;  // another key trusted there: asked, with both keys
  other.key_sha256 = std::string(64, 'a');
  ASSERT_EQ(store.Trust("127.0.0.3", port, other), rc::kOk);
  w.answers.trust = false;
  EXPECT_NE(w.Run(service), "Alice: finished");
  EXPECT_EQ(w.answers.certificates, 3);
  EXPECT_EQ(w.answers.refused.trusted_key_sha256, other.key_sha256);
}

TEST_F(GuiQuestionsServersTest, OversizedMessageIsAskedAboutAndKeptWhenRefused) {
  TRV_REQUIRE_SERVER(MailServers::Instance().Postfix());
  Window w(data_dir());
  MailService* service = w.Add("127.0.0.1", MailServers::Instance().ports().pop3, false, true);
  ASSERT_NE(service, nullptr);
  ServiceSettings s = service->settings();
  s.smtp.host = "127.0.0.1", s.smtp.port = MailServers::Instance().ports().smtp, s.smtp.timeout = 10;
  s.smtp_authentication = SmtpAuthMode::kNotRequired;
  service->SetSettings(s);
  std::string text = "From: alice@localhost\r\nTo: bob@localhost\r\nSubject: big\r\n\r\n";
  while (text.size() < 11 * 1000 * 1000) text += std::string(998, 'x') + "\r\n";
  ASSERT_EQ(QueueForSending(*service, text), rc::kOk);
  w.Run(service, false);
  EXPECT_EQ(w.answers.sizes, 1);
  EXPECT_GT(w.answers.max_size, 0u);
  EXPECT_GT(w.answers.size, w.answers.max_size);
  EXPECT_EQ(service->storage().SpecialFolder(kFolderOutbox)->file()->MessageCount(), 1u) << "kept in the outbox";
}

}  // namespace
}  // namespace trv::gui
