// The harness itself: Postfix delivers into the maildirs Dovecot serves, and
// Dovecot tells a client bound to 127.0.0.2 from one on 127.0.0.1.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "net/mail_socket.h"
#include "net/sasl.h"
#include "tests/net/net_test_util.h"
#include "tests/support/mail_servers.h"

namespace trv {
namespace {

using test::MailServers;
using test::MailUser;
using test::Pop3Mechanisms;

// Logs in to POP3 with USER/PASS; returns the STAT line.
std::string Pop3Stat(const MailUser& user) {
  CMailSocket s;
  s.SetTimeout(5);
  std::string line;
  if (s.Connect("127.0.0.1", MailServers::Instance().ports().pop3).failed() || s.ReadLine(&line).failed()) {
    return "(no connection)";
  }
  for (const std::string& command : {"USER " + user.name, "PASS " + user.password, std::string("STAT")}) {
    if (s.SendLine(command).failed() || s.ReadLine(&line).failed()) return "(connection lost)";
  }
  return line;
}

// Sends one SMTP command and reads its reply; returns the last line.
std::string Smtp(CMailSocket& s, const std::string& command) {
  if (!command.empty() && s.SendLine(command).failed()) return "(send failed)";
  std::string line;
  do {
    if (s.ReadLine(&line).failed()) return "(read failed)";
  } while (line.size() > 3 && line[3] == '-');
  return line;
}

TEST(HarnessTest, PostfixDeliversIntoTheMaildirDovecotServes) {
  MailServers& servers = MailServers::Instance();
  TRV_REQUIRE_SERVER(servers.Postfix());
  const size_t before = servers.Messages("alice").size();
  CMailSocket s;
  s.SetTimeout(5);
  ASSERT_EQ(s.Connect("127.0.0.1", servers.ports().smtp), rc::kOk);
  EXPECT_EQ(Smtp(s, "").substr(0, 3), "220");
  EXPECT_EQ(Smtp(s, "EHLO client.test").substr(0, 3), "250");
  EXPECT_EQ(Smtp(s, "MAIL FROM:<bob@localhost>").substr(0, 3), "250");
  EXPECT_EQ(Smtp(s, "RCPT TO:<nobody@localhost>").substr(0, 3), "550") << "unknown local user";
  EXPECT_EQ(Smtp(s, "RCPT TO:<someone@example.org>").substr(0, 3), "554") << "never relays";
  EXPECT_EQ(Smtp(s, "RCPT TO:<alice@localhost>").substr(0, 3), "250");
  EXPECT_EQ(Smtp(s, "DATA").substr(0, 3), "354");
  EXPECT_EQ(Smtp(s, "Subject: harness\r\n\r\nDelivered by the test server.\r\n.").substr(0, 3), "250");
  EXPECT_EQ(Smtp(s, "QUIT").substr(0, 3), "221");

  // Delivery through LMTP runs after the SMTP session.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
  while (servers.Messages("alice").size() == before && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  ASSERT_EQ(servers.Messages("alice").size(), before + 1);
  const std::string stat = Pop3Stat(MailServers::Alice());
  EXPECT_EQ(stat.rfind("+OK " + std::to_string(before + 1) + " ", 0), 0u) << stat;
}

TEST(HarnessTest, ClientBoundTo127002IsNotSecure) {
  // The way to test that no password goes out in the clear: Dovecot
  // offers a client on 127.0.0.2 only CRAM-MD5.
  MailServers& servers = MailServers::Instance();
  TRV_REQUIRE_SERVER(servers.Dovecot());
  for (const char* local : {"127.0.0.1", "127.0.0.2"}) {
    CMailSocket s;
    s.SetTimeout(5);
    s.SetLocalAddress(local);
    ASSERT_EQ(s.Connect("127.0.0.1", servers.ports().pop3), rc::kOk);
    uint32_t offered = 0;
    ASSERT_EQ(Pop3Mechanisms(s, &offered), rc::kOk);
    EXPECT_EQ(offered, std::string(local) == "127.0.0.1" ? kSaslPlain | kSaslLogin | kSaslCramMd5 : kSaslCramMd5)
        << local;
  }
}

}  // namespace
}  // namespace trv
