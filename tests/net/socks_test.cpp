// SOCKS 4, 4A and 5 byte for byte against a scripted proxy on 127.0.0.1:
// the requests and replies the real proxies (servers_socks_test.cpp) do not
// send: odd reply bytes, failures, bound names and addresses.
#include <gtest/gtest.h>

#include "net/mail_socket.h"
#include "tests/net/net_test_util.h"
#include "tests/support/script_server.h"

namespace trv {
namespace {

using test::Hex;
using test::ScriptServer;

struct Case {
  std::string name;
  uint32_t version;
  const char* host;  // "mail.internal" does not resolve here
  bool auth;         // offer user "user" and password "pass"
  Script script;     // a granted connection ends with the line "+OK"
  Result want;
};

// Connects through the scripted proxy to host:110 and reads one line; the
// proxy must have seen exactly the client's bytes of the script, in steps.
void Check(const Case& c, const std::string& user = "user") {
  test::NetworkWithout network({"mail.internal"});
  ScriptServer proxy(c.script);
  CMailSocket s;
  s.SetNetwork(&network);
  s.SetTimeout(2);
  s.SetSocks(c.version, "127.0.0.1", proxy.port());
  s.SetSocksCredentials(c.auth, user, "pass");
  EXPECT_EQ(s.Connect(c.host, 110), c.want) << c.name;
  EXPECT_EQ(s.connected(), c.want.ok()) << c.name << ": a failed handshake closes the socket";
  if (c.want.ok()) {
    EXPECT_EQ(test::Line(s), "+OK") << c.name;
  }
  s.Close().Ignore();
  EXPECT_EQ(proxy.Finish(), "") << c.name;
}

const std::string kSocks4Request = Hex("04 01 00 6e 7f 00 00 01") + "user" + Hex("00");
const std::string kGranted4 = Hex("00 5a 00 00 00 00 00 00");

TEST(SocksTest, Socks4And4A) {
  const Script to_reply = Script().Client(kSocks4Request);
  std::vector<Case> cases = {
      {"granted; a first reply byte of 4 is accepted", kSocks4, "127.0.0.1", false,
       Script(to_reply).Server(Hex("04 5a 00 00 00 00 00 00")).ServerLine("+OK"), rc::kOk},
      {"4A sends an unresolvable name behind 00 01 00 00", kSocks4A, "mail.internal", false,
       Script()
           .Client(Hex("04 01 00 6e 00 01 00 00") + "user" + Hex("00") + "mail.internal" + Hex("00"))
           .Server(kGranted4)
           .ServerLine("+OK"),
       rc::kOk},
      {"closed in the reply", kSocks4, "127.0.0.1", false, Script(to_reply).Server(Hex("00 5a 00")).Close(),
       rc::kSockClosed},
  };
  const std::pair<const char*, Result> replies[] = {
      {"00 5b", rc::kSocksGeneralFailure}, {"00 5d", rc::kSocksAuthRefused}, {"00 20", rc::kSocksRefused},
      {"05 5a", rc::kSocksBadVersion},
  };
  for (const auto& [reply, want] : replies) {
    cases.push_back({std::string("reply ") + reply, kSocks4, "127.0.0.1", false,
                     Script(to_reply).Server(Hex(reply) + Hex("00 00 00 00 00 00")).Silence(), want});
  }
  for (const Case& c : cases) Check(c);
}

const std::string kGreeting = Hex("05 01 00");
const std::string kGreetingAuth = Hex("05 02 00 02");
const std::string kAuth = Hex("01 04") + "user" + Hex("04") + "pass";
const std::string kRequest = Hex("05 01 00 01 7f 00 00 01 00 6e");
const std::string kGranted5 = Hex("05 00 00 01 7f 00 00 01 c3 50");

TEST(SocksTest, Socks5) {
  const Script to_request = Script().Client(kGreeting).Server(Hex("05 00")).Client(kRequest);
  const Script authed = Script().Client(kGreetingAuth).Server(Hex("05 02")).Client(kAuth);
  std::vector<Case> cases = {
      {"user and password, then a bound name (type 3) skipped by its length", kSocks5, "127.0.0.1", true,
       Script(authed).Server(Hex("01 00")).Client(kRequest).Server(Hex("05 00 00 03 09") + "proxy.lan" + Hex("04 38"))
           .ServerLine("+OK"),
       rc::kOk},
      {"the proxy may choose no authentication when both are offered", kSocks5, "127.0.0.1", true,
       Script().Client(kGreetingAuth).Server(Hex("05 00")).Client(kRequest).Server(kGranted5).ServerLine("+OK"),
       rc::kOk},
      {"a name only when it does not resolve here; an IPv6 bound address", kSocks5, "mail.internal", false,
       Script()
           .Client(kGreeting)
           .Server(Hex("05 00"))
           .Client(Hex("05 01 00 03 0d") + "mail.internal" + Hex("00 6e"))
           .Server(Hex("05 00 00 04") + std::string(16, '\x01') + Hex("00 19"))
           .ServerLine("+OK"),
       rc::kOk},
      {"greeting version", kSocks5, "127.0.0.1", false, Script().Client(kGreeting).Server(Hex("04 00")).Silence(),
       rc::kSocksBadVersion},
      {"no acceptable method", kSocks5, "127.0.0.1", false, Script().Client(kGreeting).Server(Hex("05 ff")).Silence(),
       rc::kSocksNoMethod},
      {"method not offered", kSocks5, "127.0.0.1", false, Script().Client(kGreeting).Server(Hex("05 02")).Silence(),
       rc::kSocksNoMethod},
      {"auth reply version", kSocks5, "127.0.0.1", true, Script(authed).Server(Hex("05 00")).Silence(),
       rc::kSocksBadVersion},
      {"user and password refused", kSocks5, "127.0.0.1", true, Script(authed).Server(Hex("01 01")).Silence(),
       rc::kSocksAuthRefused},
      {"reply version", kSocks5, "127.0.0.1", false, Script(to_request).Server(Hex("04 00 00 01")).Silence(),
       rc::kSocksBadVersion},
      {"reply code 5", kSocks5, "127.0.0.1", false, Script(to_request).Server(Hex("05 05 00 01")).Silence(),
       Result(0x80C10005)},
      {"unknown reply code", kSocks5, "127.0.0.1", false, Script(to_request).Server(Hex("05 09 00 01")).Silence(),
       rc::kSocksRefused},
      {"closed in the greeting", kSocks5, "127.0.0.1", false, Script().Client(kGreeting).Server(Hex("05")).Close(),
       rc::kSockClosed},
  };
  for (const Case& c : cases) Check(c);
  Check({"overlong credentials are refused before sending", kSocks5, "127.0.0.1", true,
         Script().Client(kGreetingAuth).Server(Hex("05 02")).Silence(), rc::kSockInvalidArg},
        std::string(256, 'u'));
}

}  // namespace
}  // namespace trv
