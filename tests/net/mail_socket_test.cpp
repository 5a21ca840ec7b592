// CMailSocket over plain connections: the line reader, receive and send,
// time-outs, early close, notifications, local address. Exact read splits
// come from the scripted network; socket behaviour from the scripted TCP
// server on 127.0.0.1.
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
// each and then closes: the lines, and last the Error() that ended them.
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
  const std::string line(5000, 'x');
  EXPECT_EQ(LinesOf({line + "\r\n" + line + "y\r\n"}), (std::vector<std::string>{line, line + "y", want.back()}))
      << "lines over many buffer fills";
}

TEST(ReadLineTest, MaximumLineLength) {
  struct Row {
    const char* name;
    std::vector<std::string> reads;
    Result want;
  };
  const std::string ten(10, 'a');
  const Row rows[] = {
      {"exactly the maximum", {ten + "\r\n"}, rc::kSockClosed},  // read, then the close
      {"exactly the maximum, LF late", {ten + "\r", "\n"}, rc::kSockClosed},
      {"one byte over", {ten + "b\r\n"}, rc::kSockTooLong},
      {"over without a line end yet", {ten + "bc"}, rc::kSockTooLong},
      {"over across reads", {"aaaaaa", "aaaaaa", "\r\n"}, rc::kSockTooLong},
  };
  for (const Row& row : rows) {
    const std::vector<std::string> lines = LinesOf(row.reads, 10);
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

TEST(WaitTest, TimeOutAndAbortEndTheWaitOnASilentServer) {
  ScriptServer server(Script().ServerLine("+OK hello").Silence());
  CMailSocket s;
  s.SetTimeout(1);
  ASSERT_EQ(s.Connect("127.0.0.1", server.port()), rc::kOk);
  ASSERT_EQ(Line(s), "+OK hello");
  std::string line;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(s.ReadLine(&line), rc::kSockTimedOut);
  const double waited = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_GE(waited, 0.9);  // one period of the time-out...
  EXPECT_LT(waited, 3.0);  // ...and not more
  EXPECT_TRUE(s.connected()) << "a time-out leaves the connection to the caller";
  s.SetTimeout(60);  // must not be waited out
  std::thread stopper([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    s.Abort();
  });
  EXPECT_EQ(s.ReadLine(&line), rc::kAbort);
  stopper.join();
  s.Close().Ignore();
  EXPECT_EQ(server.Finish(), "");
}

TEST(CloseTest, TheServerEndingTheConnection) {
  struct Row {
    const char* name;
    Script script;
    bool graceful;
    bool closes;  // a reset is reported, the close is left to the caller
  };
  // The end comes only after the client has spoken, so that a reset cannot
  // overtake the connect itself on a loaded machine.
  const Script hello = Script().ClientLine("HELLO").Server("partial li");
  const Row rows[] = {
      {"closed mid-line", Script(hello).Close(), false, true},
      {"reset mid-line", Script(hello).Fail(rc::kFail), false, false},
      {"closed, and the close that follows drains", Script(hello).Close(), true, true},
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
    EXPECT_EQ(s.ReadLine(&line), rc::kSockClosed) << row.name;
    if (!row.closes) continue;
    EXPECT_FALSE(s.connected()) << row.name;
    EXPECT_EQ(rec.Count(kStateClosing), 1) << row.name;
    EXPECT_EQ(rec.Count(kStateClosed), 1) << row.name;
    EXPECT_EQ(s.ReadLine(&line), rc::kSockNotConnected) << row.name;
  }
}

TEST(CloseTest, GracefulCloseDrainsWhatTheServerStillSends) {
  ScriptServer server(Script().ClientLine("QUIT").Server(std::string(20000, 'b')).Close());
  StateRecorder rec;
  CMailSocket s;
  s.SetGracefulClose(true);
  rec.Attach(s);
  ASSERT_EQ(s.Connect("127.0.0.1", server.port()), rc::kOk);
  ASSERT_EQ(s.SendLine("QUIT"), rc::kOk);
  EXPECT_EQ(s.Close(), rc::kOk);
  EXPECT_EQ(rec.Count(kStateClosing), 1);
  EXPECT_EQ(rec.states.back(), kStateClosed);
  EXPECT_EQ(rec.Count(kStateClosed), 1);
  EXPECT_EQ(server.Finish(), "");
}

TEST(CloseTest, ReconnectAfterClose) {
  ScriptServer first(Script().ServerLine("one"));
  ScriptServer second(Script().ServerLine("two"));
  CMailSocket s;
  ASSERT_EQ(s.Connect("127.0.0.1", first.port()), rc::kOk);
  EXPECT_EQ(s.Connect("127.0.0.1", second.port()), rc::kOk) << "connected: returns at once";
  EXPECT_EQ(Line(s), "one");
  ASSERT_EQ(s.Close(), rc::kOk);
  ASSERT_EQ(s.Connect("127.0.0.1", second.port()), rc::kOk);
  EXPECT_EQ(Line(s), "two");
}

TEST(TransferTest, ReceiveExactTakesBufferedBytesFirstAndSendAllSendsEverything) {
  std::string blob;
  for (int i = 0; i < 70000; ++i) blob.push_back(static_cast<char>(i * 7));
  const std::string request(100000, 'r');
  ScriptServer server(
      Script().Server("+OK\r\n" + blob.substr(0, 3)).Server(blob.substr(3) + "+OK end\r\n").Client(request));
  CMailSocket s;
  ASSERT_EQ(s.Connect("127.0.0.1", server.port()), rc::kOk);
  EXPECT_EQ(Line(s), "+OK");  // the read that brought it holds the blob's first bytes
  std::string got(blob.size(), '\0');
  ASSERT_EQ(s.ReceiveExact(got.data(), got.size()), rc::kOk);
  EXPECT_TRUE(got == blob);
  EXPECT_EQ(Line(s), "+OK end");
  ASSERT_EQ(s.SendAll(request.data(), request.size()), rc::kOk);
  s.Close().Ignore();
  EXPECT_EQ(server.Finish(), "");
}

TEST(TransferTest, BadArgumentsAndClosedSockets) {
  CMailSocket s;
  char c;
  size_t n = 0;
  EXPECT_EQ(s.Receive(&c, 0, &n), rc::kSockInvalidArg);
  EXPECT_EQ(s.SendAll("x", 0), rc::kSockInvalidArg);
  EXPECT_EQ(s.SendLine("NOOP"), rc::kSockNotConnected);
  EXPECT_EQ(s.Receive(&c, 1, &n), rc::kSockNotConnected);
  EXPECT_EQ(s.StartTls(), rc::kSockNotConnected);
  EXPECT_EQ(s.Close(), rc::kOk);
}

TEST(ConnectTest, NotificationsInOrder) {
  ScriptServer server(Script().ClientLine("CAPA").ServerLine("+OK"));
  StateRecorder rec;  // outlives the socket, whose destructor still notifies
  CMailSocket s;
  rec.Attach(s);
  ASSERT_EQ(s.Connect("localhost", server.port()), rc::kOk);
  EXPECT_EQ(rec.states, (std::vector<int>{kStateResolving, kStateConnecting, kStateConnected}));
  EXPECT_EQ(s.connected_host(), "localhost");
  rec.states.clear();
  ASSERT_EQ(s.SendLine("CAPA"), rc::kOk);
  ASSERT_EQ(Line(s), "+OK");
  // wait, send, idle, and the idle of SendAll; wait, receive, idle.
  EXPECT_EQ(rec.states, (std::vector<int>{kStateWaiting, kStateSending, kStateConnected, kStateConnected,
                                          kStateWaiting, kStateReceiving, kStateConnected}));
  s.Close().Ignore();
  EXPECT_EQ(server.Finish(), "");

  // In the order added; a removed listener hears nothing more.
  StateRecorder a, b;
  CMailSocket t;
  a.Attach(t);
  b.Attach(t);
  t.Notify(kStateWaiting);
  t.RemoveListener(&a);
  t.Notify(kStateClosed);
  EXPECT_EQ(a.states, std::vector<int>{kStateWaiting});
  EXPECT_EQ(b.states, (std::vector<int>{kStateWaiting, kStateClosed}));
}

TEST(ConnectTest, Failures) {
  struct Row {
    const char* name;
    const char* host;
    std::string local;
    Result want;
  };
  const test::ClosedPort closed;
  const Row rows[] = {
      {"refused", "127.0.0.1", "", rc::kSockRefused},
      {"unknown host", "nonexistent.invalid", "", rc::kSockHostNotFound},
      {"broadcast is no local literal", "127.0.0.1", "255.255.255.255", rc::kSockBadAddress},
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

TEST(ConnectTest, LocalAddressAndName) {
  ScriptServer server(Script().ServerLine("+OK"));
  CMailSocket s;
  std::string address, name;
  ASSERT_EQ(s.GetLocalAddress(&address), rc::kOk);
  ASSERT_EQ(s.GetLocalHostName(&name), rc::kOk);
  EXPECT_EQ(address + " " + name, "(unknown) localhost") << "before a connection";
  s.SetLocalAddress("127.0.0.2");
  ASSERT_EQ(s.Connect("127.0.0.1", server.port()), rc::kOk);
  ASSERT_EQ(s.GetLocalAddress(&address), rc::kOk);
  EXPECT_EQ(address, "127.0.0.2");
  EXPECT_EQ(Line(s), "+OK");
  s.Close().Ignore();
  EXPECT_EQ(server.Finish(), "");
  EXPECT_EQ(server.PeerAddress(), "127.0.0.2");

  ScriptedNetwork net(Script().ServerLine("+OK"));
  CMailSocket t;
  t.SetNetwork(&net);
  ASSERT_EQ(t.Connect("mail.test", 25), rc::kOk);
  ASSERT_EQ(t.GetLocalHostName(&name), rc::kOk);
  EXPECT_EQ(name, "client.test") << "the resolver's name for the local address";
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
