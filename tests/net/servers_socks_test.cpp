// SOCKS 4, 4A and 5 through real proxies (Dante, microsocks, ssh -D) to the
// real Dovecot's POP3 port, whose greeting proves the tunnel. The refusals
// (reply codes, methods, wrong passwords) are socks_test's, byte for byte.
#include <gtest/gtest.h>

#include "net/mail_socket.h"
#include "tests/net/net_test_util.h"
#include "tests/support/mail_servers.h"

namespace trv {
namespace {

using test::MailServers;

struct Proxy { uint32_t version; uint16_t port; bool auth = false; std::string user = {}; std::string password = {}; };

// Connects to host:port through the proxy and reads the POP3 greeting.
Result Through(const Proxy& proxy, const std::string& host, uint16_t port, Network* network) {
  CMailSocket s;
  s.SetTimeout(5);
  if (network) s.SetNetwork(network);
  s.SetSocks(proxy.version, "127.0.0.1", proxy.port);
  s.SetSocksCredentials(proxy.auth, proxy.user, proxy.password);
  if (Result r = s.Connect(host, port); r.failed()) return r;
  return test::Line(s).rfind("+OK", 0) == 0 ? rc::kOk : rc::kFail;
}

TEST(RealSocksTest, ToDovecotThroughEachProxy) {
  MailServers& servers = MailServers::Instance();
  TRV_REQUIRE_SERVER(servers.Dovecot());
  const test::ServerStatus dante = servers.Dante(), microsocks = servers.Microsocks(), ssh = servers.SshSocks();
  const test::ServerPorts& p = servers.ports();
  const test::MailUser& du = MailServers::DanteUser();
  const test::MailUser& mu = MailServers::MicrosocksUser();
  test::NetworkWithout no_localhost({"localhost"});
  struct Row {
    const char* name;
    const test::ServerStatus& status;
    Proxy proxy;
    const char* host;
    uint16_t target;
    Network* network;
    Result want;
  };
  const Row rows[] = {
      {"Dante, SOCKS 4", dante, {kSocks4, p.dante}, "127.0.0.1", p.pop3, nullptr, rc::kOk},
      {"Dante, SOCKS 4, name not resolvable here", dante, {kSocks4, p.dante}, "localhost", p.pop3, &no_localhost,
       rc::kSockHostNotFound},
      {"Dante, SOCKS 5", dante, {kSocks5, p.dante}, "127.0.0.1", p.pop3, nullptr, rc::kOk},
      {"Dante, SOCKS 5, name sent to the proxy", dante, {kSocks5, p.dante}, "localhost", p.pop3, &no_localhost,
       rc::kOk},
      {"Dante, SOCKS 5, user and password", dante, {kSocks5, p.dante, true, du.name, du.password}, "127.0.0.1",
       p.pop3, nullptr, rc::kOk},
      {"microsocks, user and password", microsocks, {kSocks5, p.microsocks_auth, true, mu.name, mu.password},
       "localhost", p.pop3, nullptr, rc::kOk},
      {"ssh, SOCKS 4", ssh, {kSocks4, p.ssh_socks}, "127.0.0.1", p.pop3, nullptr, rc::kOk},
      // 4A with a name the client resolves sends the address, as SOCKS 4 does.
      {"ssh, SOCKS 4A, name resolved here", ssh, {kSocks4A, p.ssh_socks}, "localhost", p.pop3, nullptr, rc::kOk},
      // With a name only the proxy could resolve, 4A marks it with the address
      // bytes 00 01 00 00. This proxy reads a name only behind 0.0.0.x (x not
      // 0), takes 0.1.0.0 for the target, is refused by sshd's PermitOpen and
      // drops the connection.
      {"ssh, SOCKS 4A, name sent to the proxy", ssh, {kSocks4A, p.ssh_socks}, "localhost", p.pop3, &no_localhost,
       rc::kSockClosed},
  };
  for (const Row& row : rows) {
    TRV_REQUIRE_SERVER(row.status);
    EXPECT_EQ(Through(row.proxy, row.host, row.target, row.network), row.want) << row.name;
  }
}

}  // namespace
}  // namespace trv
