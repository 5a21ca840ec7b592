// CPop3Client against the harness's Dovecot: every way in (USER/PASS, APOP,
// the SASL mechanisms, the login order, STLS, POP3S, SOCKS 5) as one
// session each, and the transaction commands on delivered messages.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <utility>

#include "net/pop3_client.h"
#include "tests/net/net_test_util.h"
#include "tests/support/mail_servers.h"

namespace trv {
namespace {

using test::MailServers;

struct Lines final : Pop3LineHandler, LineListener {
  std::vector<std::string> got, log;
  Result OnMessageLine(std::string_view line) override { return got.emplace_back(line), rc::kOk; }
  Result OnUidl(uint32_t, std::string_view uid) override { return got.emplace_back(uid), rc::kOk; }
  Result OnList(uint32_t, uint64_t size) override { return got.push_back(std::to_string(size)), rc::kOk; }
  void OnLine(CMailSocket&, LineDirection d, uint32_t, std::string_view line) override {
    log.push_back((d == kLineSent ? "S " : "R ") + std::string(line));
  }
};

TEST(Pop3ServersTest, EveryWayToLogIn) {
  TRV_REQUIRE_SERVER(MailServers::Instance().Dovecot());
  TRV_REQUIRE_SERVER(MailServers::Instance().Microsocks());
  test::TrustTestCa();
  const test::ServerPorts& p = MailServers::Instance().ports();
  const test::MailUser& alice = MailServers::Alice();
  using Method = std::function<Result(CPop3Client&)>;
  const Method login = [](CPop3Client& c) { return c.Login(); };
  struct Row {
    const char* name;
    Method method;
    const char* logged;  // a line the log must hold
    Result want = rc::kOk;
    std::function<void(CPop3Client&)> setup = nullptr;
    std::string password = MailServers::Alice().password;
    uint16_t port = 0;
  };
  const Row rows[] = {
      {"USER/PASS", [](CPop3Client& c) { return c.LoginUserPass(); }, "S PASS ********"},
      {"APOP", [](CPop3Client& c) { return c.LoginApop(); }, "S APOP alice "},
      {"AUTH PLAIN", [](CPop3Client& c) { return c.LoginSasl(kSaslPlain); }, "S AUTH PLAIN ********"},
      {"AUTH CRAM-MD5", [](CPop3Client& c) { return c.LoginSasl(kSaslCramMd5); }, "S AUTH CRAM-MD5"},
      {"Login: AUTH LOGIN first", login, "S AUTH LOGIN"},
      {"Login, secure: CRAM-MD5 first", login, "S AUTH CRAM-MD5", rc::kOk, [](CPop3Client& c) { c.SetUseSasl(true); }},
      {"Login with a wrong password ends with USER/PASS", login, "S PASS ********", rc::kPop3Login, nullptr, "wrong"},
      {"STLS from an address Dovecot does not trust", login, "S AUTH LOGIN", rc::kOk,
       [](CPop3Client& c) { c.SetLocalAddress("127.0.0.2"); }},
      {"implicit TLS", login, "S AUTH LOGIN", rc::kOk, [](CPop3Client& c) { c.SetPlainMode(false).Ignore(); },
       alice.password, p.pop3s},
      {"SOCKS 5", login, "S AUTH LOGIN", rc::kOk, [&p](CPop3Client& c) { c.SetSocks(kSocks5, "127.0.0.1", p.microsocks); }},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    CPop3Client c;
    Lines lines;
    c.AddLineListener(&lines);
    c.SetTimeout(5);
    c.SetCredentials(alice.name, row.password);
    if (row.setup) row.setup(c);
    ASSERT_EQ(c.Connect("localhost", row.port ? row.port : p.pop3), rc::kOk) << c.last_reply();
    if (std::string_view(row.name).rfind("STLS", 0) == 0) {
      EXPECT_EQ(c.capabilities() & kPop3CapUser, 0u) << "USER is not offered in the clear";
      ASSERT_EQ(c.StartTls(), rc::kOk) << c.tls_error_detail();
    }
    EXPECT_NE(c.apop_timestamp(), "");
    EXPECT_EQ(row.method(c), row.want) << c.last_reply();
    const auto logged = [&lines](auto pred) { return std::any_of(lines.log.begin(), lines.log.end(), pred); };
    EXPECT_TRUE(logged([&](const std::string& l) { return l.rfind(row.logged, 0) == 0; })) << row.logged;
    EXPECT_FALSE(logged([&](const std::string& l) { return l.find(alice.password) != std::string::npos; }))
        << "the password in the log";
    if (row.want.ok()) {
      uint32_t count = 0;
      uint64_t size = 0;
      EXPECT_EQ(c.Stat(&count, &size), rc::kOk);
    } else {
      EXPECT_NE(c.last_reply(), "");
      EXPECT_EQ(c.Capa(), rc::kOk) << "still usable";
    }
    EXPECT_EQ(c.Quit(), rc::kOk);
  }
}

TEST(Pop3ServersTest, TransactionOnDeliveredMessages) {
  TRV_REQUIRE_SERVER(MailServers::Instance().Dovecot());
  MailServers& servers = MailServers::Instance();
  const test::MailUser& bob = MailServers::Bob();
  ASSERT_NE(servers.Deliver(bob.name, "Subject: dots\n\nfirst\n.\n..\n.x\nlast\n"), "");
  ASSERT_NE(servers.Deliver(bob.name, "Subject: two\nX-A: b\n\nbody\n"), "");
  using Got = std::vector<std::string>;
  CPop3Client c;
  Lines lines;
  const auto take = [&lines] { return std::exchange(lines.got, {}); };
  c.SetLineHandler(&lines);
  c.SetCredentials(bob.name, bob.password);
  ASSERT_EQ(c.Connect("127.0.0.1", servers.ports().pop3), rc::kOk);
  ASSERT_EQ(c.Login(), rc::kOk) << c.last_reply();
  uint32_t count = 0;
  uint64_t total = 0, size = 0;
  ASSERT_EQ(c.Stat(&count, &total), rc::kOk);
  ASSERT_EQ(count, 2u);
  ASSERT_EQ(c.ListAll(), rc::kOk);
  ASSERT_EQ(c.List(2, &size), rc::kOk);
  EXPECT_EQ(size, 30u) << "26 bytes and a CR for each of the 4 line ends";
  EXPECT_EQ(take(), (Got{std::to_string(total - size), std::to_string(size)}));
  std::string uid2;
  ASSERT_EQ(c.UidlAll(), rc::kOk);
  ASSERT_EQ(c.Uidl(2, &uid2), rc::kOk);
  EXPECT_EQ(take().at(1), uid2);
  // Dovecot doubles every leading dot and the client takes one off: the
  // lines come back as they were delivered.
  ASSERT_EQ(c.Retrieve(1), rc::kOk);
  EXPECT_EQ(take(), (Got{"Subject: dots", "", "first", ".", "..", ".x", "last"}));
  ASSERT_EQ(c.Top(2, 0), rc::kOk);
  EXPECT_EQ(take(), (Got{"Subject: two", "X-A: b", ""}));
  EXPECT_EQ(c.Retrieve(3), rc::kPop3Retrieve);
  EXPECT_EQ(c.Delete(1), rc::kOk);
  EXPECT_EQ(c.Delete(1), rc::kPop3Delete);
  EXPECT_EQ(c.Quit(), rc::kOk);
}

}  // namespace
}  // namespace trv
