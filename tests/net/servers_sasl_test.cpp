// PLAIN, LOGIN and CRAM-MD5 against Dovecot's POP3 AUTH and Postfix's SMTP
// AUTH (after STARTTLS), driven by a small loop (the protocol clients come
// later).
#include <gtest/gtest.h>

#include "net/mail_socket.h"
#include "net/sasl.h"
#include "tests/net/net_test_util.h"
#include "tests/support/mail_servers.h"

namespace trv {
namespace {

using test::MailServers;
using test::MailUser;

// Reads the greeting and the capabilities (SMTP: after STARTTLS) and gives
// the bits of the SASL mechanisms the server lists.
Result Mechanisms(CMailSocket& s, bool smtp, uint32_t* bits) {
  const std::vector<std::pair<const char*, const char*>> steps =  // command (or none), last line
      smtp ? std::vector<std::pair<const char*, const char*>>{{nullptr, "220 "}, {"EHLO c.test", "250 "},
                                                              {"STARTTLS", "220 "}, {"EHLO c.test", "250 "}}
           : std::vector<std::pair<const char*, const char*>>{{nullptr, "+OK"}, {"CAPA", "."}};
  std::vector<std::string> lines;
  for (const auto& [command, last] : steps) {
    if (Result r = command ? s.SendLine(command) : rc::kOk; r.failed()) return r;
    if (Result r = test::ReadUntil(s, last, &lines); r.failed()) return r;
    const bool upgrade = command && std::string_view(command) == "STARTTLS";
    if (Result r = upgrade ? s.SetPlainMode(false) : rc::kOk; r.failed()) return r;
  }
  const size_t at = smtp ? 4 : 0;  // after "250-"
  const std::string_view key = smtp ? "AUTH " : "SASL ";
  *bits = 0;
  for (const std::string& l : lines) {
    if (l.size() > at && l.compare(at, key.size(), key) == 0) {
      *bits = SaslClient::ParseMechanismList(l.substr(at + key.size()));
    }
  }
  return rc::kOk;
}

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

TEST(SaslServersTest, Pop3AuthAgainstDovecotAndSmtpAuthAgainstPostfix) {
  test::TrustTestCa();
  const MailUser& alice = MailServers::Alice();
  const MailUser& bob = MailServers::Bob();  // a password with a blank
  const uint32_t all = kSaslPlain | kSaslLogin | kSaslCramMd5;
  struct Row {
    bool smtp;
    uint32_t mechanism;
    const MailUser& user;
    std::string password;
    const char* want;
    uint32_t offered;
    const char* local = "127.0.0.1";
  };
  const Row rows[] = {
      {false, kSaslPlain, alice, alice.password, "+OK", all},   {false, kSaslLogin, alice, alice.password, "+OK", all},
      {false, kSaslCramMd5, alice, alice.password, "+OK", all}, {false, kSaslPlain, alice, "wrong", "-ERR", all},
      {false, kSaslLogin, alice, "wrong", "-ERR", all},         {false, kSaslCramMd5, alice, "wrong", "-ERR", all},
      // Not a secure connection to Dovecot: CRAM-MD5 is all it offers.
      {false, kSaslCramMd5, alice, alice.password, "+OK", kSaslCramMd5, "127.0.0.2"},
      {true, kSaslPlain, bob, bob.password, "235", all},        {true, kSaslLogin, bob, bob.password, "235", all},
      {true, kSaslCramMd5, bob, bob.password, "235", all},
  };
  for (const Row& row : rows) {
    TRV_REQUIRE_SERVER(row.smtp ? MailServers::Instance().Postfix() : MailServers::Instance().Dovecot());
    const test::ServerPorts& ports = MailServers::Instance().ports();
    std::string name;
    SaslClient::MechanismName(row.mechanism, &name).Ignore();
    CMailSocket s;
    s.SetTimeout(5);
    s.SetLocalAddress(row.local);
    ASSERT_EQ(s.Connect("localhost", row.smtp ? ports.smtp : ports.pop3), rc::kOk);
    uint32_t offered = 0;
    ASSERT_EQ(Mechanisms(s, row.smtp, &offered), rc::kOk) << name << ": " << s.tls_error_detail();
    EXPECT_EQ(offered & all, row.offered) << name << " from " << row.local;

    SaslClient sasl;
    std::string line;
    ASSERT_EQ(sasl.Start(row.mechanism, row.user.name, row.password), rc::kOk);
    ASSERT_EQ(Exchange(s, sasl, row.smtp ? 4 : 2, row.smtp ? "334" : "+ ", &line), rc::kOk) << name;
    EXPECT_EQ(line.rfind(row.want, 0), 0u) << name << " with " << row.password << ": " << line;
    if (!row.smtp && std::string(row.want) == "+OK") {
      ASSERT_EQ(s.SendLine("STAT"), rc::kOk);
      EXPECT_EQ(test::Line(s).rfind("+OK", 0), 0u) << "logged in";
    }
  }
}

}  // namespace
}  // namespace trv
