// PLAIN, LOGIN and CRAM-MD5 against Dovecot's POP3 AUTH, driven by a small
// loop (SMTP AUTH against Postfix is tested through CSmtpClient).
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

}  // namespace
}  // namespace trv
