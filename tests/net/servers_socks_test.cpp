// SOCKS 4, 4A and 5 through real proxies (Dante, microsocks, ssh -D) to the
// real Dovecot's POP3 port, whose greeting proves the tunnel.
#include <gtest/gtest.h>

#include "net/mail_socket.h"
#include "tests/net/net_test_util.h"
#include "tests/support/mail_servers.h"

namespace trv {
namespace {

using test::MailServers;
using test::MailUser;
using test::NetworkWithout;

struct Proxy {
  uint32_t version;
  uint16_t port;
  bool auth = false;
  std::string user = {};
  std::string password = {};
};

// Connects to host:port through the proxy and reads the POP3 greeting.
Result Through(const Proxy& proxy, const std::string& host, uint16_t port, Network* network = nullptr) {
  CMailSocket s;
  s.SetTimeout(5);
  if (network) s.SetNetwork(network);
  s.SetSocks(proxy.version, "127.0.0.1", proxy.port);
  s.SetSocksCredentials(proxy.auth, proxy.user, proxy.password);
  if (Result r = s.Connect(host, port); r.failed()) return r;
  std::string line;
  if (Result r = s.ReadLine(&line); r.failed()) return r;
  return line.rfind("+OK", 0) == 0 ? rc::kOk : rc::kFail;
}

class RealSocksTest : public ::testing::Test {
 protected:
  void SetUp() override { TRV_REQUIRE_SERVER(servers().Dovecot()); }
  static MailServers& servers() { return MailServers::Instance(); }
  static uint16_t pop3() { return MailServers::Instance().ports().pop3; }
};

TEST_F(RealSocksTest, Dante) {
  TRV_REQUIRE_SERVER(servers().Dante());
  const uint16_t port = servers().ports().dante;
  const MailUser& u = MailServers::DanteUser();
  NetworkWithout no_localhost({"localhost"});
  const test::ClosedPort closed_port;
  const uint16_t closed = closed_port.port();
  struct Row {
    const char* name;
    Proxy proxy;
    const char* host;
    uint16_t target;
    Network* network;
    Result want;
  };
  const Row rows[] = {
      {"SOCKS 4", {kSocks4, port}, "127.0.0.1", pop3(), nullptr, rc::kOk},
      {"SOCKS 4, name resolved here", {kSocks4, port}, "localhost", pop3(), nullptr, rc::kOk},
      {"SOCKS 4, name not resolvable here", {kSocks4, port}, "localhost", pop3(), &no_localhost,
       rc::kSockHostNotFound},
      {"SOCKS 4, refused target", {kSocks4, port}, "127.0.0.1", closed, nullptr, rc::kSocksGeneralFailure},
      {"SOCKS 5", {kSocks5, port}, "127.0.0.1", pop3(), nullptr, rc::kOk},
      {"SOCKS 5, name sent to the proxy", {kSocks5, port}, "localhost", pop3(), &no_localhost, rc::kOk},
      {"SOCKS 5, user and password", {kSocks5, port, true, u.name, u.password}, "127.0.0.1", pop3(), nullptr,
       rc::kOk},
      {"SOCKS 5, wrong password", {kSocks5, port, true, u.name, "wrong"}, "127.0.0.1", pop3(), nullptr,
       rc::kSocksAuthRefused},
      {"SOCKS 5, refused target", {kSocks5, port}, "127.0.0.1", closed, nullptr, Result(0x80C10005)},
  };
  for (const Row& row : rows) EXPECT_EQ(Through(row.proxy, row.host, row.target, row.network), row.want) << row.name;
}

TEST_F(RealSocksTest, Microsocks) {
  TRV_REQUIRE_SERVER(servers().Microsocks());
  const test::ServerPorts& p = servers().ports();
  const MailUser& u = MailServers::MicrosocksUser();
  NetworkWithout no_localhost({"localhost"});
  struct Row {
    const char* name;
    Proxy proxy;
    Network* network;
    Result want;
  };
  const Row rows[] = {
      {"without authentication", {kSocks5, p.microsocks}, nullptr, rc::kOk},
      {"name sent to the proxy", {kSocks5, p.microsocks}, &no_localhost, rc::kOk},
      {"user and password", {kSocks5, p.microsocks_auth, true, u.name, u.password}, nullptr, rc::kOk},
      {"wrong password", {kSocks5, p.microsocks_auth, true, u.name, "nope"}, nullptr, rc::kSocksAuthRefused},
      {"no credentials offered", {kSocks5, p.microsocks_auth}, nullptr, rc::kSocksNoMethod},
  };
  for (const Row& row : rows) EXPECT_EQ(Through(row.proxy, "localhost", pop3(), row.network), row.want) << row.name;
}

TEST_F(RealSocksTest, SshDynamicForwarding) {
  TRV_REQUIRE_SERVER(servers().SshSocks());
  const uint16_t port = servers().ports().ssh_socks;
  EXPECT_EQ(Through({kSocks4, port}, "127.0.0.1", pop3()), rc::kOk);
  // 4A with a name the client resolves sends the address, as SOCKS 4 does.
  EXPECT_EQ(Through({kSocks4A, port}, "localhost", pop3()), rc::kOk);
  // With a name only the proxy could resolve, 4A marks it with the address
  // bytes 00 01 00 00. This proxy reads a name only behind 0.0.0.x (x not
  // 0), takes 0.1.0.0 for the target, is refused by sshd's PermitOpen and
  // drops the connection.
  NetworkWithout no_localhost({"localhost"});
  EXPECT_EQ(Through({kSocks4A, port}, "localhost", pop3(), &no_localhost), rc::kSockClosed);
}

}  // namespace
}  // namespace trv
