// SOCKS 4, 4A and 5 byte for byte against a scripted proxy on 127.0.0.1:
// every request the client sends and every reply code it must understand.
#include <gtest/gtest.h>

#include "net/mail_socket.h"
#include "tests/net/net_test_util.h"
#include "tests/support/script_server.h"

namespace trv {
namespace {

using test::Hex;
using test::NetworkWithout;
using test::ScriptServer;

constexpr uint16_t kTargetPort = 110;  // 00 6e

// Connects through the scripted proxy to host:110 and reads one line after
// the handshake; the proxy's own checks are in the returned mismatch.
struct Outcome {
  Result connect;
  std::string line;
  std::string mismatch;
  std::string received;
  bool connected_after = false;
};

Outcome ThroughProxy(const Script& script, uint32_t version, const std::string& host, bool auth = false,
            Network* network = nullptr) {
  ScriptServer proxy(script);
  CMailSocket s;
  if (network) s.SetNetwork(network);
  s.SetTimeout(2);
  s.SetSocks(version, "127.0.0.1", proxy.port());
  s.SetSocksCredentials(auth, "user", "pass");
  Outcome o;
  o.connect = s.Connect(host, kTargetPort);
  o.connected_after = s.connected();
  if (o.connect.ok()) s.ReadLine(&o.line).Ignore();
  s.Close().Ignore();
  o.mismatch = proxy.Finish();
  o.received = proxy.Received();
  return o;
}

// ---------------------------------------------------------------------------
// SOCKS 4 and 4A

const std::string kSocks4Request = Hex("04 01 00 6e 7f 00 00 01") + "user" + Hex("00");

TEST(Socks4Test, RequestAndGrantedReply) {
  for (const char* first : {"00", "04"}) {  // a first reply byte of 4 is accepted too
    const Outcome o = ThroughProxy(Script().Client(kSocks4Request).Server(Hex(std::string(first) + " 5a 00 00 00 00 00 00"))
                              .ServerLine("+OK through the proxy"),
                          kSocks4, "127.0.0.1");
    EXPECT_EQ(o.connect, rc::kOk) << first;
    EXPECT_EQ(o.line, "+OK through the proxy") << first;
    EXPECT_EQ(o.mismatch, "") << first;
  }
}

TEST(Socks4Test, ReplyCodes) {
  struct Row {
    const char* reply;
    Result want;
  };
  const Row rows[] = {
      {"00 5b", rc::kSocksGeneralFailure},  {"00 5c", rc::kSocksHostUnreachable},
      {"00 5d", rc::kSocksAuthRefused},     {"00 20", rc::kSocksRefused},
      {"05 5a", rc::kSocksBadVersion},      {"5a 00", rc::kSocksBadVersion},
  };
  for (const Row& row : rows) {
    const Outcome o =
        ThroughProxy(Script().Client(kSocks4Request).Server(Hex(row.reply) + Hex("00 00 00 00 00 00")).Silence(), kSocks4,
            "127.0.0.1");
    EXPECT_EQ(o.connect, row.want) << "reply " << row.reply;
    EXPECT_FALSE(o.connected_after) << "a failed handshake closes the socket; reply " << row.reply;
  }
}

TEST(Socks4Test, ProxyClosingInTheReply) {
  const Outcome o = ThroughProxy(Script().Client(kSocks4Request).Server(Hex("00 5a 00")).Close(), kSocks4, "127.0.0.1");
  EXPECT_EQ(o.connect, rc::kSockClosed);
}

TEST(Socks4Test, NameThatDoesNotResolveHere) {
  NetworkWithout net({"mail.internal"});
  // SOCKS 4 cannot carry a name: the resolution error, nothing sent.
  Outcome o = ThroughProxy(Script().Silence(), kSocks4, "mail.internal", false, &net);
  EXPECT_EQ(o.connect, rc::kSockHostNotFound);
  EXPECT_EQ(o.received, "");
  // SOCKS 4A sends it behind the address bytes 00 01 00 00.
  o = ThroughProxy(Script()
              .Client(Hex("04 01 00 6e 00 01 00 00") + "user" + Hex("00") + "mail.internal" + Hex("00"))
              .Server(Hex("00 5a 00 00 00 00 00 00"))
              .ServerLine("+OK"),
          kSocks4A, "mail.internal", false, &net);
  EXPECT_EQ(o.connect, rc::kOk);
  EXPECT_EQ(o.mismatch, "");
}

TEST(Socks4Test, FourASendsTheAddressWhenTheNameResolves) {
  const Outcome o = ThroughProxy(Script().Client(kSocks4Request).Server(Hex("00 5a 00 00 00 00 00 00")).ServerLine("+OK"),
                        kSocks4A, "localhost");
  EXPECT_EQ(o.connect, rc::kOk);
  EXPECT_EQ(o.mismatch, "");
}

// ---------------------------------------------------------------------------
// SOCKS 5

const std::string kGreeting = Hex("05 01 00");
const std::string kGreetingAuth = Hex("05 02 00 02");
const std::string kAuth = Hex("01 04") + "user" + Hex("04") + "pass";
const std::string kRequest = Hex("05 01 00 01 7f 00 00 01 00 6e");
const std::string kGranted = Hex("05 00 00 01 7f 00 00 01 c3 50");

TEST(Socks5Test, WithoutAuthentication) {
  const Outcome o =
      ThroughProxy(Script().Client(kGreeting).Server(Hex("05 00")).Client(kRequest).Server(kGranted).ServerLine("+OK"),
          kSocks5, "127.0.0.1");
  EXPECT_EQ(o.connect, rc::kOk);
  EXPECT_EQ(o.line, "+OK");
  EXPECT_EQ(o.mismatch, "");
}

TEST(Socks5Test, UserAndPasswordThenBoundName) {
  // The bound address comes as a name (type 3): skipped by its length.
  const Outcome o = ThroughProxy(Script()
                            .Client(kGreetingAuth)
                            .Server(Hex("05 02"))
                            .Client(kAuth)
                            .Server(Hex("01 00"))
                            .Client(kRequest)
                            .Server(Hex("05 00 00 03 09") + "proxy.lan" + Hex("04 38"))
                            .ServerLine("+OK"),
                        kSocks5, "127.0.0.1", true);
  EXPECT_EQ(o.connect, rc::kOk);
  EXPECT_EQ(o.line, "+OK");
  EXPECT_EQ(o.mismatch, "");
}

TEST(Socks5Test, ProxyMayChooseNoAuthenticationWhenBothAreOffered) {
  const Outcome o =
      ThroughProxy(Script().Client(kGreetingAuth).Server(Hex("05 00")).Client(kRequest).Server(kGranted).ServerLine("+OK"),
          kSocks5, "127.0.0.1", true);
  EXPECT_EQ(o.connect, rc::kOk);
  EXPECT_EQ(o.mismatch, "");
}

TEST(Socks5Test, NameOnlyWhenItDoesNotResolveHere) {
  NetworkWithout net({"mail.internal"});
  // An IPv6 bound address: 16 bytes and the port, skipped.
  const Outcome o = ThroughProxy(Script()
                            .Client(kGreeting)
                            .Server(Hex("05 00"))
                            .Client(Hex("05 01 00 03 0d") + "mail.internal" + Hex("00 6e"))
                            .Server(Hex("05 00 00 04") + std::string(16, '\x01') + Hex("00 19"))
                            .ServerLine("+OK"),
                        kSocks5, "mail.internal", false, &net);
  EXPECT_EQ(o.connect, rc::kOk);
  EXPECT_EQ(o.line, "+OK");
  EXPECT_EQ(o.mismatch, "");
}

TEST(Socks5Test, Refusals) {
  struct Row {
    std::string name;
    Script script;
    bool auth;
    Result want;
  };
  const Script to_request = Script().Client(kGreeting).Server(Hex("05 00")).Client(kRequest);
  std::vector<Row> rows = {
      {"greeting version", Script().Client(kGreeting).Server(Hex("04 00")), false, rc::kSocksBadVersion},
      {"no acceptable method", Script().Client(kGreeting).Server(Hex("05 ff")), false, rc::kSocksNoMethod},
      {"method not offered", Script().Client(kGreeting).Server(Hex("05 02")), false, rc::kSocksNoMethod},
      {"auth reply version",
       Script().Client(kGreetingAuth).Server(Hex("05 02")).Client(kAuth).Server(Hex("05 00")), true,
       rc::kSocksBadVersion},
      {"user and password refused",
       Script().Client(kGreetingAuth).Server(Hex("05 02")).Client(kAuth).Server(Hex("01 01")), true,
       rc::kSocksAuthRefused},
      {"reply version", Script(to_request).Server(Hex("04 00 00 01")), false, rc::kSocksBadVersion},
      {"unknown reply code", Script(to_request).Server(Hex("05 09 00 01")), false, rc::kSocksRefused},
      {"closed in the greeting", Script().Client(kGreeting).Server(Hex("05")).Close(), false, rc::kSockClosed},
  };
  for (int code = 1; code <= 8; ++code) {
    rows.push_back({"reply code " + std::to_string(code),
                    Script(to_request).Server(std::string("\x05", 1) + static_cast<char>(code) + Hex("00 01")),
                    false, Result(0x80C10000u + code)});
  }
  for (Row& row : rows) {
    const Outcome o = ThroughProxy(row.script.Silence(), kSocks5, "127.0.0.1", row.auth);
    EXPECT_EQ(o.connect, row.want) << row.name;
    EXPECT_FALSE(o.connected_after) << row.name;
    EXPECT_EQ(o.mismatch, "") << row.name;
  }
}

TEST(Socks5Test, OverlongCredentialsAreRefusedBeforeSending) {
  ScriptServer proxy(Script().Client(kGreetingAuth).Server(Hex("05 02")).Silence());
  CMailSocket s;
  s.SetTimeout(2);
  s.SetSocks(kSocks5, "127.0.0.1", proxy.port());
  s.SetSocksCredentials(true, std::string(256, 'u'), "pass");
  EXPECT_EQ(s.Connect("127.0.0.1", kTargetPort), rc::kSockInvalidArg);
  proxy.Finish();
  EXPECT_EQ(proxy.Received(), kGreetingAuth);
}

}  // namespace
}  // namespace trv
