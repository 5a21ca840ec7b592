// Whole sending runs against the harness's Postfix, one per authentication
// mode and transport (a run without AUTH is scripted in send_run_test), each
// with a refused recipient before a good message; wrong credentials go to the
// prompt. The delivered bytes are read back from the To and Bcc maildirs.
#include <gtest/gtest.h>

#include <chrono>

#include "tests/net/net_test_util.h"
#include "tests/services/service_fixture.h"
#include "tests/support/mail_servers.h"

namespace trv {
namespace {

using test::MailServers;

// Answers `answer` (saved), or cancels when it is empty.
struct Prompt final : CredentialsPrompt {
  std::string answer;
  bool AskCredentials(MailService&, CredentialsFor, Credentials& c) override {
    c.password = answer;
    c.save = true;
    return !answer.empty();
  }
};

class SendServersTest : public test::SendFixture {};

TEST_F(SendServersTest, EachModeAndTransportDeliversTheTextWithoutHiddenFields) {
  TRV_REQUIRE_SERVER(MailServers::Instance().Postfix());
  TRV_REQUIRE_SERVER(MailServers::Instance().Microsocks());
  test::TrustTestCa();
  const auto& p = MailServers::Instance().ports();
  const std::string good = MailServers::Bob().password;
  struct Row {
    const char* name; SmtpAuthMode mode; bool ssl, implicit, sasl; uint16_t port, socks;
    std::string password, prompt; Result want;
    bool worker = false;  // a whole run of the worker: Start(true, false)
  };
  const Row rows[] = {
      {"incoming login, STARTTLS", SmtpAuthMode::kSameAsIncoming, true, false, false, p.smtp, 0, good, "", rc::kOk},
      {"prompt after a refusal, implicit TLS", SmtpAuthMode::kCredentials, true, true, false, p.smtps, 0, "wrong",
       good, rc::kOk},
      {"CRAM-MD5 through SOCKS 5", SmtpAuthMode::kCredentials, false, false, true, p.smtp, p.microsocks, good, "",
       rc::kOk},
      {"prompt cancelled", SmtpAuthMode::kCredentials, false, false, false, p.smtp, 0, "wrong", "", rc::kAbort},
      {"after a POP3 login", SmtpAuthMode::kAfterIncoming, false, false, false, p.smtp, 0, good, "", rc::kOk, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Prompt prompt;
    prompt.answer = row.prompt;
    service_->SetCredentialsPrompt(&prompt);
    Edit([&](ServiceSettings& s) {
      s.smtp_authentication = row.mode;
      s.smtp.port = row.port, s.smtp.use_ssl = row.ssl, s.smtp.ssl_explicit = !row.implicit, s.smtp.use_sasl = row.sasl;
      s.smtp.socks_version = row.socks ? kSocks5 : kSocksNone, s.smtp.socks_address = "127.0.0.1";
      s.smtp.socks_port = row.socks, s.incoming.host = "127.0.0.1", s.incoming.port = p.pop3;
      ProtocolSettings& login = row.mode == SmtpAuthMode::kCredentials ? s.smtp : s.incoming;
      login.user_name = MailServers::Bob().name;
      login.password = row.password;
    });
    std::vector<uint32_t> keys;
    for (const MessageRecord& r : Folder(kFolderOutbox)) keys.push_back(r.key);
    EXPECT_TRUE(keys.empty() || File(kFolderOutbox).Delete(keys).ok());
    const std::string marker = "m" + std::to_string(std::chrono::steady_clock::now().time_since_epoch().count());
    ASSERT_EQ(QueueForSending(*service_, "To: nobody@localhost\r\nSubject: refused\r\n\r\nx\r\n"), rc::kOk);
    ASSERT_EQ(QueueForSending(*service_, "From: Me <me@localhost>\r\nTo: alice@localhost\r\nBcc: bob@localhost\r\n"
                                        "Subject: " + marker + "\r\nMessage-ID: <" + marker + "@localhost>\r\n"
                                        "X-Unsent: 1\r\n\r\n.\r\n..two\r\n.x\r\nend\r\n"), rc::kOk);
    const size_t logged = Log().size();
    events_.clear();
    if (row.worker) {
      ASSERT_EQ(service_->Start(true, false), rc::kOk);
      service_->WaitIdle();
    }
    EXPECT_EQ(row.worker ? service_->pending_error() : service_->Send(), row.want);
    const std::string log = Log().substr(logged);
    EXPECT_EQ(log.find("(POP3)") < log.find("(SMTP)"), row.worker);  // logged in to receive first
    EXPECT_EQ(log.find(good), std::string::npos) << "a password reached the log";
    const std::vector<MessageRecord> left = Folder(kFolderOutbox);
    ASSERT_FALSE(events_.empty());
    EXPECT_EQ(events_.front(), kEventConnecting);
    EXPECT_EQ(events_.back(), row.worker ? kEventRunFinished : kEventClosed);
    if (row.want.failed()) {
      EXPECT_EQ(left.size(), 2u);
      EXPECT_EQ(log.find("- Error: "), std::string::npos);
      continue;
    }
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(left[0].subject, u"refused");
    EXPECT_NE(log.find("- Error: The SMTP server refused the command (reply 550)."), std::string::npos);
    EXPECT_EQ(Folder(kFolderSent).back().flags & (msgflag::kSent | msgflag::kUnsent), msgflag::kSent);
    EXPECT_TRUE(row.prompt.empty() || service_->settings().smtp.password == row.prompt);  // kept for later runs
    for (const std::string user : {"alice", "bob"}) {
      const std::string got = MailServers::Instance().WaitForMessage(user, "Subject: " + marker);
      const size_t body = got.find("\n\n");
      ASSERT_NE(body, std::string::npos) << user << " got nothing";
      EXPECT_EQ(got.substr(body), "\n\n.\n..two\n.x\nend\n");
      for (const std::string& hidden : {std::string("Bcc"), std::string("X-Unsent"),
                                        service_->settings().guid.ToLowerString().substr(1, 8)}) {
        EXPECT_EQ(got.find(hidden), std::string::npos) << hidden;
      }
    }
  }
  service_->SetCredentialsPrompt(nullptr);
}

}  // namespace
}  // namespace trv
