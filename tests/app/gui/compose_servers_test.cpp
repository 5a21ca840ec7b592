// A message composed in the window and sent at once through the harness's
// Postfix: found in the recipient's maildir with its attachment's bytes.
#include <gtest/gtest.h>

#include <QCheckBox>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <fstream>

#include "app/gui/compose_window.h"
#include "app/gui/session.h"
#include "mime/compose_text.h"
#include "services/service_registry.h"
#include "store/storage.h"
#include "tests/app/gui/gui_fixture.h"
#include "tests/support/mail_servers.h"

namespace trv::gui {
namespace {

using test::MailServers;
using GuiComposeServersTest = GuiTest;

TEST_F(GuiComposeServersTest, SendAtOnceDeliversTheMessageWithItsAttachment) {
  TRV_REQUIRE_SERVER(MailServers::Instance().Postfix());
  const auto& p = MailServers::Instance().ports();
  {
    MailEngine* engine = AcquireEngine();
    engine->SetDataDirectoryOverride(data_dir());
    InstallServiceFactory(*engine);
    ASSERT_FALSE(engine->Start("").failed());
    ServiceSettings s;
    s.service_name = u"Alice", s.email_address = u"alice@localhost";
    s.incoming.host = "127.0.0.1", s.incoming.port = p.pop3, s.incoming.store_password = true;
    s.incoming.user_name = MailServers::Alice().name, s.incoming.password = MailServers::Alice().password;
    s.smtp.host = "127.0.0.1", s.smtp.port = p.smtp, s.smtp.timeout = 10;
    s.smtp_authentication = SmtpAuthMode::kSameAsIncoming;
    ASSERT_EQ(CreateService(*engine, "POP3", s, nullptr), rc::kOk);
    ReleaseEngine();
  }
  Session session;
  ASSERT_TRUE(session.Start({TRVMAIL_DIR, data_dir(), "", {}}));
  const std::string marker = "Window " + std::to_string(::getpid()) + "-" + std::to_string(::time(nullptr));
  const std::string bytes("\x89PNG\r\n\x1a\n\0\x01\x02 raw", 17);
  std::ofstream(dir_.path() / "pic.png", std::ios::binary) << bytes;

  ComposeWindow* w = OpenCompose(*session.window(), ComposedMessage());
  w->to().setText("bob@localhost");
  w->subject().setText(QString::fromStdString(marker));
  w->body().setPlainText("Sent from the window.");
  ASSERT_TRUE(w->AddFiles({QString::fromStdString((dir_.path() / "pic.png").string())}, false));
  w->send_at_once().setChecked(true);
  ASSERT_EQ(w->Send(), rc::kOk);

  const std::string delivered = MailServers::Instance().WaitForMessage(MailServers::Bob().name, marker);
  EXPECT_TRUE(delivered.find("Sent from the window.") != std::string::npos &&
              delivered.find("X-Unsent") == std::string::npos) << delivered;
  CXmMimeMessage message;
  ComposedMessage got;
  ASSERT_EQ(message.ParseText(delivered), rc::kOk);
  ASSERT_EQ(ComposedFromMessage(message, &got), rc::kOk);
  ASSERT_EQ(got.parts.attachments.size(), 1u);
  EXPECT_EQ(got.parts.attachments[0].data, bytes);
  MailService* service = FindService(*session.engine(), "Alice");
  service->WaitIdle();
  EXPECT_TRUE(service->storage().SpecialFolder(kFolderOutbox)->file()->Messages().empty());
  EXPECT_TRUE(session.window()->send_at_once()) << "remembered for the next window";
}

}  // namespace
}  // namespace trv::gui
