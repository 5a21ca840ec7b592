// CSmtpClient against the harness's Postfix: whole sessions with EHLO,
// STARTTLS, AUTH, DSN parameters, a refused recipient and a message read
// back from the recipient's maildir.
#include <gtest/gtest.h>

#include <chrono>

#include "net/smtp_client.h"
#include "tests/net/net_test_util.h"
#include "tests/support/mail_servers.h"

namespace trv {
namespace {

using test::MailServers;
using test::MailUser;

// Every line of the log, and the AUTH commands apart.
struct Lines final : LineListener {
  std::string all, auth;
  void OnLine(CMailSocket&, LineDirection, uint32_t, std::string_view line) override {
    all += std::string(line) + "\n";
    if (line.substr(0, 5) == "AUTH ") auth += std::string(line) + "\n";
  }
};

TEST(SmtpServersTest, ExtensionsStartTlsAndAuth) {
  TRV_REQUIRE_SERVER(MailServers::Instance().Postfix());
  test::TrustTestCa();
  const MailUser& bob = MailServers::Bob();
  struct Row { bool use_sasl; std::string password; Result want; const char* mechanisms_tried; };
  const Row rows[] = {
      {false, bob.password, rc::kOk, "AUTH LOGIN\n"},
      {true, bob.password, rc::kOk, "AUTH CRAM-MD5\n"},
      {false, "wrong", Result(0x80C3D6A3), "AUTH LOGIN\nAUTH PLAIN ********\n"},
  };
  for (const Row& row : rows) {
    CSmtpClient c;
    Lines log;
    c.AddLineListener(&log);
    c.SetTimeout(10);
    c.SetUseSasl(row.use_sasl);
    ASSERT_EQ(c.Connect("localhost", MailServers::Instance().ports().smtp), rc::kOk);
    ASSERT_EQ(c.Greet(), rc::kOk) << log.all;
    EXPECT_EQ(c.extensions() & (kSmtpStartTls | kSmtpSize | kSmtpDsn | kSmtpEnhancedStatusCodes),
              kSmtpStartTls | kSmtpSize | kSmtpDsn | kSmtpEnhancedStatusCodes);
    EXPECT_GT(c.max_size(), 0u);
    ASSERT_EQ(c.StartTls(), rc::kOk) << c.tls_error_detail();
    ASSERT_EQ(c.Ehlo(), rc::kOk);
    EXPECT_EQ(c.sasl_mechanisms(), kSaslPlain | kSaslLogin | kSaslCramMd5);
    EXPECT_EQ(c.Authenticate(bob.name, row.password), row.want) << log.all;
    EXPECT_EQ(c.last_reply().substr(0, 3), row.want.ok() ? "" : "535");
    EXPECT_EQ(log.auth, row.mechanisms_tried);
    EXPECT_EQ(log.all.find(row.password), std::string::npos) << "a password reached the log";
    EXPECT_EQ(c.Quit(), rc::kOk);
  }
}

TEST(SmtpServersTest, MessageArrivesByteForByte) {
  TRV_REQUIRE_SERVER(MailServers::Instance().Postfix());
  MailServers& servers = MailServers::Instance();
  const std::string marker = "m" + std::to_string(std::chrono::steady_clock::now().time_since_epoch().count());
  // Lone dots (one across the end of the first 2,048-byte piece), a line already in
  // the doubled form the caller hands in, and a lone dot without CR LF last.
  // Lines of at most 900 bytes: the server folds longer ones.
  const std::string head = "X-Test: " + marker + "\r\nSubject: dots\r\n\r\n.\r\nafter a dot\r\n";
  std::string pad, pad_lf;
  for (size_t left = CSmtpClient::kDataPiece - 2 - head.size(); left > 0;) {
    const size_t n = left > 902 ? 900 : left;
    pad += std::string(n, 'p') + (n == left ? "" : "\r\n");
    pad_lf += std::string(n, 'p') + (n == left ? "" : "\n");
    left -= n == left ? n : n + 2;
  }
  const std::string message = head + pad + "\r\n.\r\n..dot first\r\n.\r\n.\r\nlast\r\n.";
  const std::string want_body = ".\nafter a dot\n" + pad_lf + "\n.\n.dot first\n.\n.\nlast\n.\n";

  CSmtpClient c;
  c.SetTimeout(10);
  ASSERT_EQ(c.Connect("127.0.0.1", servers.ports().smtp), rc::kOk);
  ASSERT_EQ(c.Greet(), rc::kOk);
  ASSERT_EQ(c.MailFromDsn("sender@localhost", "env-" + marker, false, message.size()), rc::kOk) << c.last_reply();
  ASSERT_EQ(c.RcptToDsn("alice@localhost", "alice@localhost", "", true,
                        CSmtpClient::kNotifySuccess | CSmtpClient::kNotifyFailure), rc::kOk)
      << c.last_reply();
  EXPECT_EQ(c.RcptTo("nobody@localhost"), Result(0x80C3DE32));
  EXPECT_EQ(c.last_reply().substr(0, 3), "550");
  CXmViewStream stream(message);
  ASSERT_EQ(c.Data(stream, 0), rc::kOk) << c.last_reply();
  EXPECT_EQ(c.Quit(), rc::kOk);

  const std::string stored = servers.WaitForMessage(MailServers::Alice().name, "X-Test: " + marker);
  ASSERT_FALSE(stored.empty()) << "not delivered within 30 s";
  const size_t body = stored.find("\n\n", stored.find("X-Test: " + marker));
  ASSERT_NE(body, std::string::npos);
  EXPECT_EQ(stored.substr(body + 2), want_body);
}

}  // namespace
}  // namespace trv
