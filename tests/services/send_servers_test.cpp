// Whole sending runs against the harness's Postfix: each authentication mode,
// plain, STARTTLS, implicit TLS and SOCKS 5; a refused recipient; the
// credentials prompt. The delivered bytes are read back from the maildirs.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "tests/net/net_test_util.h"
#include "tests/services/send_fixture.h"
#include "tests/support/mail_servers.h"

namespace trv {
namespace {

using test::MailServers;

class SendServersTest : public test::SendFixture {
 protected:
  void SetUp() override {
    TRV_REQUIRE_SERVER(MailServers::Instance().Postfix());
    test::TrustTestCa();
  }
  // The text of a message that was queued with `marker` in its subject.
  static std::string Queued(const std::string& marker) {
    return "From: Me <me@localhost>\r\nTo: alice@localhost\r\nBcc: bob@localhost\r\nSubject: " + marker +
           "\r\nMessage-ID: <" + marker + "@localhost>\r\nX-Unsent: 1\r\n\r\n.\r\n..two\r\n.x\r\nend\r\n";
  }
  // The message file holding `marker` in the user's maildir; "" after 30 s.
  static std::string Delivered(const std::string& user, const std::string& marker) {
    for (int tries = 0; tries < 300; ++tries) {
      for (const auto& path : MailServers::Instance().Messages(user)) {
        std::string text = ReadFileText(path);
        if (text.find("Subject: " + marker) != std::string::npos) return text;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return "";
  }
  void ClearOutbox() {
    std::vector<uint32_t> keys;
    for (const MessageRecord& r : Folder(kFolderOutbox)) keys.push_back(r.key);
    if (keys.empty()) return;
    EXPECT_EQ(storage_.SpecialFolder(kFolderOutbox)->file()->Delete(keys), rc::kOk);
  }
};

TEST_F(SendServersTest, EachModeAndTransportDeliversTheTextWithoutHiddenFields) {
  const auto& p = MailServers::Instance().ports();
  const test::MailUser& bob = MailServers::Bob();
  struct Row { const char* name; SmtpAuthMode mode; bool ssl, implicit, sasl; uint16_t port, socks; };
  const Row rows[] = {
      {"no AUTH, plain", SmtpAuthMode::kNotRequired, false, false, false, p.smtp, 0},
      {"incoming credentials, STARTTLS", SmtpAuthMode::kSameAsIncoming, true, false, false, p.smtp, 0},
      {"SMTP credentials, implicit TLS", SmtpAuthMode::kCredentials, true, true, false, p.smtps, 0},
      {"CRAM-MD5 through SOCKS 5", SmtpAuthMode::kCredentials, false, false, true, p.smtp, p.microsocks},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    if (row.socks) {
      TRV_REQUIRE_SERVER(MailServers::Instance().Microsocks());
    }
    Edit([&](ServiceSettings& s) {
      s.smtp_authentication = row.mode;
      s.smtp = {};
      s.smtp.host = "localhost";
      s.smtp.timeout = 10;
      s.smtp.port = row.port;
      s.smtp.use_ssl = row.ssl;
      s.smtp.ssl_explicit = !row.implicit;
      s.smtp.use_sasl = row.sasl;
      s.smtp.socks_version = row.socks ? kSocks5 : kSocksNone;
      s.smtp.socks_address = "127.0.0.1";
      s.smtp.socks_port = row.socks;
      ProtocolSettings& login = row.mode == SmtpAuthMode::kSameAsIncoming ? s.incoming : s.smtp;
      login.user_name = bob.name;
      login.password = bob.password;
    });
    const std::string marker = "m" + std::to_string(std::chrono::steady_clock::now().time_since_epoch().count());
    ASSERT_EQ(QueueForSending(service_, "To: nobody@localhost\r\nSubject: refused\r\n\r\nx\r\n"), rc::kOk);
    ASSERT_EQ(QueueForSending(service_, Queued(marker)), rc::kOk);
    events_.codes.clear();
    EXPECT_EQ(service_.Send(), rc::kOk);

    const std::vector<MessageRecord> left = Folder(kFolderOutbox), sent = Folder(kFolderSent);
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(left[0].subject, u"refused");
    ASSERT_FALSE(sent.empty());
    EXPECT_EQ(sent.back().flags & (msgflag::kSent | msgflag::kUnsent), msgflag::kSent);
    for (const std::string user : {"alice", "bob"}) {
      const std::string got = Delivered(user, marker);
      const size_t body = got.find("\n\n");
      ASSERT_NE(body, std::string::npos) << user << " got nothing";
      EXPECT_EQ(got.substr(body), "\n\n.\n..two\n.x\nend\n");
      for (const std::string& hidden : {std::string("Bcc"), std::string("X-Unsent"), service_.settings().guid.ToLowerString().substr(1, 8)}) {
        EXPECT_EQ(got.find(hidden), std::string::npos) << hidden;
      }
    }
    const std::string log = Log();
    EXPECT_EQ(log.find(bob.password), std::string::npos) << "a password reached the log";
    EXPECT_NE(log.find("Last reply: 550"), std::string::npos);
    ASSERT_FALSE(events_.codes.empty());
    EXPECT_EQ(events_.codes.front(), kEventConnecting);
    EXPECT_EQ(events_.codes.back(), kEventClosed);
    ClearOutbox();
  }
}

// Answers with `answer`, or cancels when it is empty.
struct Prompt final : CredentialsPrompt {
  std::string answer;
  int asked = 0;
  bool AskCredentials(MailService&, CredentialsFor, Credentials& c) override {
    ++asked;
    c.password = answer;
    c.save = true;
    return !answer.empty();
  }
};

TEST_F(SendServersTest, RefusedCredentialsAskTheUser) {
  const test::MailUser& bob = MailServers::Bob();
  struct Row { std::string answer; Result want; size_t left; };
  const Row rows[] = {{"", rc::kAbort, 1}, {bob.password, rc::kOk, 0}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.answer.empty() ? "cancel" : "right password");
    Prompt prompt;
    prompt.answer = row.answer;
    service_.SetCredentialsPrompt(&prompt);
    Edit([&](ServiceSettings& s) {
      s.smtp_authentication = SmtpAuthMode::kCredentials;
      s.smtp.port = MailServers::Instance().ports().smtp;
      s.smtp.user_name = bob.name;
      s.smtp.password = "wrong";
    });
    ClearOutbox();
    ASSERT_EQ(QueueForSending(service_, "To: alice@localhost\r\nSubject: prompt\r\n\r\nx\r\n"), rc::kOk);
    EXPECT_EQ(service_.Send(), row.want);
    EXPECT_EQ(prompt.asked, 1);
    EXPECT_EQ(Folder(kFolderOutbox).size(), row.left);
    EXPECT_EQ(Log().find("Error: "), std::string::npos);
    EXPECT_EQ(service_.settings().smtp.password, row.answer.empty() ? "wrong" : bob.password);
  }
  service_.SetCredentialsPrompt(nullptr);
}

}  // namespace
}  // namespace trv
