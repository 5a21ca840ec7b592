// PLAIN, LOGIN and CRAM-MD5 against Dovecot's POP3 AUTH and Postfix's SMTP
// AUTH, driven by a small loop (the protocol clients come later).
#include <gtest/gtest.h>

#include "net/mail_socket.h"
#include "net/sasl.h"
#include "tests/net/net_test_util.h"
#include "tests/support/mail_servers.h"

namespace trv {
namespace {

using test::MailServers;
using test::MailUser;
using test::Pop3Mechanisms;
using test::ReadUntil;

// Sends "AUTH " and the first line, answers each challenge (the text after
// the continuation prefix), and returns the server's final line.
Result Exchange(CMailSocket& s, SaslClient& sasl, size_t prefix, std::string_view challenge_mark,
                std::string* final_line) {
  std::string first;
  if (Result r = sasl.FirstLine(&first); r.failed()) return r;
  if (Result r = s.SendLine("AUTH " + first); r.failed()) return r;
  std::string line;
  for (;;) {
    if (Result r = s.ReadLine(&line); r.failed()) return r;
    if (sasl.IsComplete() || line.rfind(challenge_mark, 0) != 0) break;
    std::string answer;
    if (Result r = sasl.Step(line.size() > prefix ? line.substr(prefix) : "", &answer); r.failed()) return r;
    if (Result r = s.SendLine(answer); r.failed()) return r;
  }
  *final_line = line;
  return rc::kOk;
}

TEST(SaslServersTest, Pop3AuthAgainstDovecot) {
  TRV_REQUIRE_SERVER(MailServers::Instance().Dovecot());
  const MailUser& alice = MailServers::Alice();
  struct Row {
    uint32_t mechanism;
    std::string password;
    const char* want;
    const char* local = "127.0.0.1";
  };
  const Row rows[] = {
      {kSaslPlain, alice.password, "+OK"},   {kSaslLogin, alice.password, "+OK"},
      {kSaslCramMd5, alice.password, "+OK"}, {kSaslPlain, "wrong", "-ERR"},
      {kSaslLogin, "wrong", "-ERR"},         {kSaslCramMd5, "wrong", "-ERR"},
      // Not a secure connection to Dovecot: CRAM-MD5 is all it offers.
      {kSaslCramMd5, alice.password, "+OK", "127.0.0.2"},
  };
  for (const Row& row : rows) {
    std::string name;
    SaslClient::MechanismName(row.mechanism, &name).Ignore();
    CMailSocket s;
    s.SetTimeout(5);
    s.SetLocalAddress(row.local);
    ASSERT_EQ(s.Connect("127.0.0.1", MailServers::Instance().ports().pop3), rc::kOk);
    uint32_t offered = 0;
    ASSERT_EQ(Pop3Mechanisms(s, &offered), rc::kOk);
    EXPECT_EQ(offered, row.local == std::string("127.0.0.1") ? kSaslPlain | kSaslLogin | kSaslCramMd5 : kSaslCramMd5)
        << row.local;

    SaslClient sasl;
    std::string line;
    ASSERT_EQ(sasl.Start(row.mechanism, alice.name, row.password), rc::kOk);
    ASSERT_EQ(Exchange(s, sasl, 2, "+ ", &line), rc::kOk) << name;
    EXPECT_EQ(line.rfind(row.want, 0), 0u) << name << " with " << row.password << ": " << line;
    if (std::string(row.want) == "+OK") {
      ASSERT_EQ(s.SendLine("STAT"), rc::kOk);
      EXPECT_EQ(test::Line(s).rfind("+OK", 0), 0u) << "logged in";
    }
  }
}

TEST(SaslServersTest, SmtpAuthAgainstPostfixAfterStartTls) {
  TRV_REQUIRE_SERVER(MailServers::Instance().Postfix());
  test::TrustTestCa();
  const MailUser& bob = MailServers::Bob();  // a password with a blank
  for (uint32_t mechanism : {kSaslPlain, kSaslLogin, kSaslCramMd5}) {
    CMailSocket s;
    s.SetTimeout(5);
    ASSERT_EQ(s.Connect("localhost", MailServers::Instance().ports().smtp), rc::kOk);
    std::vector<std::string> lines;
    ASSERT_EQ(ReadUntil(s, "220 ", &lines), rc::kOk);
    ASSERT_EQ(s.SendLine("EHLO client.test"), rc::kOk);
    ASSERT_EQ(ReadUntil(s, "250 ", &lines), rc::kOk);
    ASSERT_EQ(s.SendLine("STARTTLS"), rc::kOk);
    ASSERT_EQ(ReadUntil(s, "220 ", &lines), rc::kOk);
    ASSERT_EQ(s.SetPlainMode(false), rc::kOk) << s.tls_error_detail();
    ASSERT_EQ(s.SendLine("EHLO client.test"), rc::kOk);
    ASSERT_EQ(ReadUntil(s, "250 ", &lines), rc::kOk);
    uint32_t offered = 0;
    for (const std::string& l : lines) {
      if (l.size() > 9 && l.compare(4, 5, "AUTH ") == 0) offered = SaslClient::ParseMechanismList(l.substr(9));
    }
    EXPECT_TRUE(offered & mechanism) << mechanism;
    SaslClient sasl;
    ASSERT_EQ(sasl.Start(mechanism, bob.name, bob.password), rc::kOk);
    std::string line;
    ASSERT_EQ(Exchange(s, sasl, 4, "334", &line), rc::kOk);
    EXPECT_EQ(line.rfind("235", 0), 0u) << mechanism << ": " << line;
  }
}

}  // namespace
}  // namespace trv
