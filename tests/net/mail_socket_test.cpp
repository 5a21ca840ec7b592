// CMailSocket over plain connections: the line reader, receive and send,
// time-outs, aborts, early close, notifications, local address. Exact read
// splits come from the scripted network; socket behaviour from the scripted
// TCP server on 127.0.0.1.
#include "net/mail_socket.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "net/line_log.h"
#include "net/scripted_transport.h"
#include "tests/net/net_test_util.h"
#include "tests/support/script_server.h"

namespace trv {
namespace {

using test::Error;
using test::Line;
using test::ScriptServer;
using test::StateRecorder;

// What a socket reads from a scripted server that sends `reads` one read
// each and then closes: the lines, and last the Error() that ended them
// (after which the socket must have closed itself).
std::vector<std::string> LinesOf(const std::vector<std::string>& reads, int32_t max_line = 0) {
  Script script;
  for (const std::string& r : reads) script.Server(r);
  ScriptedNetwork net(script.Close());
  CMailSocket s;
  s.SetNetwork(&net);
  s.SetMaxLineLength(max_line);
  EXPECT_EQ(s.Connect("mail.test", 110), rc::kOk);
  std::vector<std::string> lines;
  std::string line;
  Result end;
  while ((end = s.ReadLine(&line)).ok()) lines.push_back(line);
  lines.push_back(Error(end));
  EXPECT_FALSE(s.connected()) << lines.back();
  return lines;
}

TEST(ReadLineTest, EverySplitPointGivesTheSameLines) {
  // A CR or LF alone stays in the line; an unfinished line at the close is
  // not given out.
  const std::string text = "+OK ready\r\n\r\na\rb\r\nc\nd\r\ne\r\r\n* 1 FETCH {3}\r\nxyz\r\nlast\r\npartial";
  const std::vector<std::string> want = {"+OK ready", "", "a\rb", "c\nd", "e\r", "* 1 FETCH {3}", "xyz", "last",
                                         Error(rc::kSockClosed)};
  for (size_t cut = 1; cut < text.size(); ++cut) {
    EXPECT_EQ(LinesOf({text.substr(0, cut), text.substr(cut)}), want) << "split after byte " << cut;
  }
  std::vector<std::string> bytes;
  for (char c : text) bytes.emplace_back(1, c);
  EXPECT_EQ(LinesOf(bytes), want) << "one byte a read";
}

TEST(ReadLineTest, MaximumLineLength) {
  // `max`: 0: the default bound
  struct Row { const char* name; int32_t max; std::vector<std::string> reads; Result want; };
  const std::string ten(10, 'a'), mib(CMailSocket::kDefaultMaxLineLength, 'a');
  const Row rows[] = {
      {"exactly the maximum", 10, {ten + "\r\n"}, rc::kSockClosed},  // read, then the close
      {"exactly the maximum, LF late", 10, {ten + "\r", "\n"}, rc::kSockClosed},
      {"one byte over", 10, {ten + "b\r\n"}, rc::kSockTooLong},
      {"over across reads", 10, {"aaaaaa", "aaaaaa", "\r\n"}, rc::kSockTooLong},
      {"exactly the default", 0, {mib + "\r\n"}, rc::kSockClosed},
      {"over the default, the end never read", 0, {mib + "b", mib + "\r\n"}, rc::kSockTooLong},
  };
  for (const Row& row : rows) {
    const std::vector<std::string> lines = LinesOf(row.reads, row.max);
    EXPECT_EQ(lines.back(), Error(row.want)) << row.name;
    EXPECT_EQ(lines.size(), row.want == rc::kSockClosed ? 2u : 1u) << row.name;
  }
}

class PatientSocket : public CMailSocket {
 public:
  int asked = 0;
  int patience = 0;
  bool KeepWaiting() override { return ++asked <= patience; }
};

TEST(WaitTest, KeepWaitingDecidesAfterEachPeriod) {
  for (int patience : {0, 2}) {
    ScriptedNetwork net(Script().Silence().Silence().ServerLine("+OK late").Close());
    PatientSocket s;
    s.patience = patience;
    s.SetNetwork(&net);
    ASSERT_EQ(s.Connect("mail.test", 110), rc::kOk);
    EXPECT_EQ(Line(s), patience ? "+OK late" : Error(rc::kSockTimedOut));
    EXPECT_EQ(s.asked, patience ? 2 : 1);
  }
}

TEST(AbortTest, EndsTheWaitAtOnceAndIoFailsUntilClose) {
  ScriptedNetwork at_once(Script().ServerLine("+OK")), slow(Script().ServerLine("+OK"));
  slow.SetLookupDelay(std::chrono::seconds(30));
  const test::LoopbackPort silent(test::LoopbackPort::kSilent);
  ScriptServer server(Script().ServerLine("+OK").Silence());
  // `after_ms`: the Abort from another thread; -1: before Connect
  struct Row { const char* name; Network* network; const char* host; uint16_t port; int after_ms; };
  const Row rows[] = {
      {"before Connect", &at_once, "mail.test", 110, -1},
      {"during the name lookup", &slow, "mail.test", 110, 100},
      {"during the TCP connect", &Network::System(), "127.0.0.1", silent.port(), 100},
      {"during a read", &Network::System(), "127.0.0.1", server.port(), 300},  // Connect succeeds
  };
  for (const Row& row : rows) {
    CMailSocket s;
    s.SetNetwork(row.network);
    if (row.after_ms < 0) s.Abort();
    std::thread stopper([&] {
      if (row.after_ms < 0) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(row.after_ms));
      s.Abort();
    });
    const auto start = std::chrono::steady_clock::now();
    const Result r = s.Connect(row.host, row.port);
    if (r.ok()) {
      EXPECT_EQ(Line(s), "+OK") << row.name;
    }
    EXPECT_EQ(r.ok() ? Line(s) : Error(r), Error(rc::kAbort)) << row.name;
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 2.0) << row.name;
    stopper.join();
    EXPECT_EQ(Line(s), Error(rc::kAbort)) << row.name;
    EXPECT_EQ(s.SendLine("QUIT"), rc::kAbort) << row.name;
    EXPECT_EQ(s.Close(), rc::kOk);
    EXPECT_EQ(Line(s), Error(rc::kSockNotConnected)) << row.name << ": Close clears the mark";
  }
  EXPECT_EQ(at_once.ConnectedTo(), "") << "an aborted socket connects nowhere";
  EXPECT_EQ(server.Finish(), "");
}

TEST(CloseTest, TheServerEndingTheConnection) {
  struct Row {
    const char* name;
    Script script;
    bool graceful;
    bool closes;        // a reset is reported, the close is left to the caller
    bool close_first;   // the client calls Close() instead of reading
  };
  // The end comes only after the client has spoken, so that a reset cannot
  // overtake the connect itself on a loaded machine.
  const Script hello = Script().ClientLine("HELLO").Server("partial li");
  const Row rows[] = {
      {"closed mid-line", Script(hello).Close(), false, true, false},
      {"reset mid-line", Script(hello).Fail(rc::kFail), false, false, false},
      {"closed, and the close that follows drains", Script(hello).Close(), true, true, false},
      {"a graceful Close() drains what is still sent", Script(hello).Server(std::string(20000, 'b')).Close(), true,
       true, true},
  };
  for (const Row& row : rows) {
    ScriptServer server(row.script);
    StateRecorder rec;  // outlives the socket, whose destructor still notifies
    CMailSocket s;
    rec.Attach(s);
    s.SetGracefulClose(row.graceful);
    ASSERT_EQ(s.Connect("127.0.0.1", server.port()), rc::kOk);
    ASSERT_EQ(s.SendLine("HELLO"), rc::kOk);
    std::string line;
    if (row.close_first) {
      EXPECT_EQ(s.Close(), rc::kOk);
      EXPECT_EQ(server.Finish(), "") << row.name;
    } else {
      EXPECT_EQ(s.ReadLine(&line), rc::kSockClosed) << row.name;
    }
    if (!row.closes) continue;
    EXPECT_FALSE(s.connected()) << row.name;
    EXPECT_EQ(rec.Count(kStateClosing), 1) << row.name;
    EXPECT_EQ(rec.Count(kStateClosed), 1) << row.name;
    EXPECT_EQ(s.ReadLine(&line), rc::kSockNotConnected) << row.name;
  }
}

TEST(TransferTest, ReceiveToHandsBufferedBytesFirstAndSendAllSendsEverything) {
  std::string blob;
  for (int i = 0; i < 70000; ++i) blob.push_back(static_cast<char>(i * 7));
  const std::string request(100000, 'r');
  ScriptServer server(
      Script().Server("+OK\r\n" + blob.substr(0, 3)).Server(blob.substr(3) + "+OK end\r\n").Client(request));
  CMailSocket s;
  ASSERT_EQ(s.Connect("127.0.0.1", server.port()), rc::kOk);
  EXPECT_EQ(Line(s), "+OK");  // the read that brought it holds the blob's first bytes
  std::vector<std::string> pieces;
  ASSERT_EQ(s.ReceiveTo(blob.size(), [&](std::string_view piece) {
    pieces.emplace_back(piece);
    return piece.size() <= CMailSocket::kReceivePiece ? rc::kOk : rc::kFail;
  }), rc::kOk);
  ASSERT_GT(pieces.size(), 2u);
  EXPECT_EQ(pieces[0], blob.substr(0, 3));
  std::string got;
  for (const std::string& p : pieces) got += p;
  EXPECT_TRUE(got == blob);
  EXPECT_EQ(Line(s), "+OK end");
  ASSERT_EQ(s.SendAll(request.data(), request.size()), rc::kOk);
  s.Close().Ignore();
  EXPECT_EQ(server.Finish(), "");
}

TEST(TransferTest, BadArgumentsClosedSocketsAndAFailingSink) {
  CMailSocket s;
  char c;
  size_t n = 0;
  const auto sink = [](std::string_view piece) { return piece == "ab" ? rc::kOk : rc::kReadFault; };
  EXPECT_EQ(s.Receive(&c, 0, &n), rc::kSockInvalidArg);
  EXPECT_EQ(s.SendAll("x", 0), rc::kSockInvalidArg);
  EXPECT_EQ(s.SendLine("NOOP"), rc::kSockNotConnected);
  EXPECT_EQ(s.Receive(&c, 1, &n), rc::kSockNotConnected);
  EXPECT_EQ(s.ReceiveTo(0, sink), rc::kOk);
  EXPECT_EQ(s.ReceiveTo(1, sink), rc::kSockNotConnected);
  EXPECT_EQ(s.StartTls(), rc::kSockNotConnected);
  EXPECT_EQ(s.Close(), rc::kOk);
  ScriptedNetwork net(Script().Server("ab").Server("cd").ServerLine("ef"));
  s.SetNetwork(&net);
  ASSERT_EQ(s.Connect("mail.test", 143), rc::kOk);
  EXPECT_EQ(s.ReceiveTo(6, sink), rc::kReadFault) << "the sink's own code";
  EXPECT_EQ(Line(s), "ef") << "the sink's failure ended the transfer";
}

TEST(ConnectTest, NotificationsInOrderAndTheLocalAddress) {
  ScriptServer server(Script().ClientLine("CAPA").ServerLine("+OK"));
  StateRecorder rec;  // outlives the socket, whose destructor still notifies
  CMailSocket s;
  rec.Attach(s);
  std::string address, name;
  ASSERT_EQ(s.GetLocalAddress(&address), rc::kOk);
  ASSERT_EQ(s.GetLocalHostName(&name), rc::kOk);
  EXPECT_EQ(address + " " + name, "(unknown) localhost") << "before a connection";
  s.SetLocalAddress("127.0.0.2");
  ASSERT_EQ(s.Connect("localhost", server.port()), rc::kOk);
  EXPECT_EQ(rec.states, (std::vector<int>{kStateResolving, kStateConnecting, kStateConnected}));
  EXPECT_EQ(s.connected_host(), "localhost");
  ASSERT_EQ(s.GetLocalAddress(&address), rc::kOk);
  EXPECT_EQ(address, "127.0.0.2");
  rec.states.clear();
  ASSERT_EQ(s.SendLine("CAPA"), rc::kOk);
  ASSERT_EQ(Line(s), "+OK");
  // wait, send, idle, and the idle of SendAll; wait, receive, idle.
  EXPECT_EQ(rec.states, (std::vector<int>{kStateWaiting, kStateSending, kStateConnected, kStateConnected,
                                          kStateWaiting, kStateReceiving, kStateConnected}));
  s.Close().Ignore();
  EXPECT_EQ(server.Finish(), "");
  EXPECT_EQ(server.PeerAddress(), "127.0.0.2");

  ScriptedNetwork net(Script().ServerLine("+OK"));
  s.SetNetwork(&net);
  ASSERT_EQ(s.Connect("mail.test", 25), rc::kOk);
  ASSERT_EQ(s.GetLocalHostName(&name), rc::kOk);
  EXPECT_EQ(name, "client.test") << "the resolver's name for the local address";
}

TEST(ConnectTest, Failures) {
  struct Row { const char* name; const char* host; std::string local; Result want; };
  const test::LoopbackPort closed(test::LoopbackPort::kRefused);
  const Row rows[] = {
      {"refused", "127.0.0.1", "", rc::kSockRefused},
      {"unknown host", "nonexistent.invalid", "", rc::kSockHostNotFound},
      {"local address must be a literal", "127.0.0.1", "localhost", rc::kSockBadAddress},
      {"local address not on this machine", "127.0.0.1", "192.0.2.55", rc::kSockAddressNotAvailable},
  };
  for (const Row& row : rows) {
    StateRecorder rec;
    CMailSocket s;
    rec.Attach(s);
    s.SetLocalAddress(row.local);
    EXPECT_EQ(s.Connect(row.host, closed.port()), row.want) << row.name;
    EXPECT_FALSE(s.connected()) << row.name;
    EXPECT_EQ(rec.Count(kStateConnected), 0) << row.name;
  }
}

TEST(ConnectTest, FallsBackToIpv6WhenTheNameHasNoIpv4Address) {
  const int listener = ::socket(AF_INET6, SOCK_STREAM, 0);
  sockaddr_in6 a{};
  a.sin6_family = AF_INET6;
  a.sin6_addr = in6addr_loopback;
  socklen_t len = sizeof a;
  if (::bind(listener, reinterpret_cast<sockaddr*>(&a), len) != 0) {
    ::close(listener);
    GTEST_SKIP() << "no IPv6 loopback on this machine";
  }
  ::listen(listener, 1);
  ::getsockname(listener, reinterpret_cast<sockaddr*>(&a), &len);
  std::thread server([listener] {
    const int c = ::accept(listener, nullptr, nullptr);
    ::send(c, "+OK six\r\n", 9, 0);
    ::close(c);
  });
  CMailSocket s;
  s.SetTimeout(2);
  EXPECT_EQ(s.Connect("::1", ntohs(a.sin6_port)), rc::kOk);
  EXPECT_EQ(Line(s), "+OK six");
  std::string local;
  EXPECT_EQ(s.GetLocalAddress(&local), rc::kOk);
  EXPECT_EQ(local, "::1");
  s.Close().Ignore();
  server.join();
  ::close(listener);
}

// A client's view of the line hook: the levels, the mask and the masking.
class LineClient : public CMailSocket {
 public:
  using CMailSocket::LineLevel;
  using CMailSocket::SendSecretLine;
};

// Records "S<level> line" and "R<level> line"; also feeds a LineLog.
struct LineRecorder : LineListener, LogSink {
  std::vector<std::string> lines, logged;
  LineLog log{*this};
  void OnLine(CMailSocket& s, LineDirection direction, uint32_t level, std::string_view line) override {
    lines.push_back((direction == kLineSent ? "S" : "R") + std::to_string(level) + " " + std::string(line));
    log.OnLine(s, direction, level, line);
  }
  void Log(std::string_view text, int level) override { logged.push_back(std::to_string(level) + std::string(text)); }
};

TEST(LineLogTest, LevelsMaskAndCredentials) {
  for (uint32_t mask : {kLogCommands | 4u, kLogCommands | 4u | kLogCredentials}) {
    Script script;
    script.ClientLine("PASS secret").ServerLine("+OK").ServerLine("one").ServerLine(".").ClientLine("LIST 1");
    script.ServerLine("+OK 1 2").ServerLine("body").ServerLine(".");
    ScriptedNetwork net(script.Close());
    LineClient s;
    LineRecorder log;
    s.SetNetwork(&net);
    s.AddLineListener(&log);
    s.SetLogMask(mask);
    ASSERT_EQ(s.Connect("mail.test", 110), rc::kOk);
    std::string line;
    ASSERT_EQ(s.SendSecretLine("PASS secret", "PASS ********"), rc::kOk);
    ASSERT_EQ(s.ReadLine(&line), rc::kOk);
    {
      LineClient::LineLevel listing(s, 4);
      ASSERT_EQ(s.ReadLine(&line), rc::kOk);
      ASSERT_EQ(s.ReadLine(&line), rc::kOk);
    }
    ASSERT_EQ(s.SendLine("LIST 1"), rc::kOk);
    ASSERT_EQ(s.ReadLine(&line), rc::kOk);
    {
      LineClient::LineLevel message(s, 32);  // not in the mask: the body line is not told
      ASSERT_EQ(s.ReadLine(&line), rc::kOk);
      ASSERT_EQ(s.ReadLine(&line), rc::kOk);
    }
    const std::string pass = mask & kLogCredentials ? "S1 PASS secret" : "S1 PASS ********";
    EXPECT_EQ(log.lines, (std::vector<std::string>{pass, "R1 +OK", "R4 one", "R1 .", "S1 LIST 1", "R1 +OK 1 2", "R1 ."}));
    EXPECT_EQ(log.logged.front(), std::to_string(kLogSent) + pass.substr(3));
    EXPECT_EQ(log.logged.back(), std::to_string(kLogReceived) + ".");
    s.RemoveLineListener(&log);
  }
}

}  // namespace
}  // namespace trv
