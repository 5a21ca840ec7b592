// CPop3Client on transcripts, for the bytes a real server will not send
// (tests/net/servers_pop3_test.cpp has the real sessions), and its readers.
#include "net/pop3_client.h"

#include <gtest/gtest.h>

#include <functional>

#include "net/scripted_transport.h"
#include "tests/net/net_test_util.h"

namespace trv {
namespace {

// Keeps what the hooks and the line listeners were told.
struct Recorder final : Pop3LineHandler, LineListener {
  std::vector<std::string> got, log;
  Result OnList(uint32_t n, uint64_t size) override { return Add("list " + std::to_string(n), std::to_string(size)); }
  Result OnUidl(uint32_t n, std::string_view uid) override { return Add("uidl " + std::to_string(n), uid); }
  Result OnMessageLine(std::string_view line) override { return Add("", line); }
  Result Add(std::string s, std::string_view line) {
    got.push_back(s.empty() ? std::string(line) : s + " " + std::string(line));
    return rc::kOk;
  }
  void OnLine(CMailSocket&, LineDirection d, uint32_t, std::string_view line) override {
    log.push_back((d == kLineSent ? "S " : "R ") + std::string(line));
  }
};

// A greeting and a CAPA listing ({} for a refused CAPA).
Script Greeted(std::string_view greeting, std::vector<std::string> capa) {
  Script s;
  s.ServerLine(greeting).ClientLine("CAPA");
  if (capa.empty()) return s.ServerLine("-ERR unknown command");
  s.ServerLine("+OK");
  for (const std::string& line : capa) s.ServerLine(line);
  return s.ServerLine(".");
}

using C = CPop3Client;
using R = Recorder;
constexpr const char* kNoStamp = "Required APOP timestamp not found in greeting";
uint32_t count;
uint64_t size;

struct Row {
  const char* name;
  Script script;
  std::function<Result(C&, R&)> run;
  Result want;
  std::vector<std::string> got = {};
};

TEST(Pop3ClientTest, Transcripts) {
  const Script plain = Greeted("+OK ready", {});
  std::string megabytes(2 << 20, 'x');
  Script endless = Script(plain).ClientLine("RETR 1").ServerLine("+OK");
  for (int i = 0; i < 1000; ++i) endless.ServerLine("line");
  Row rows[] = {
      {"SASL without USER: nothing is offered",
       Greeted("+OK ready", {"SASL PLAIN"}).ClientLine("AUTH").ServerLine("+OK").ServerLine("PLAIN").ServerLine("."),
       [](C& c, R&) { return c.Login(); }, rc::kPop3Login},
      {"APOP without a time stamp sends nothing", Greeted("+OK ready", {"USER"}),
       [](C& c, R& r) {
         c.SetUseSasl(true);
         const Result result = c.Login();
         EXPECT_EQ(c.last_reply(), kNoStamp);
         EXPECT_EQ(r.log.back(), "R " + std::string(kNoStamp));
         return result;
       },
       rc::kPop3Login},
      {"secure login: CRAM-MD5 first, then APOP (RFC 1939's example digest), never USER/PASS",
       Greeted("+OK POP3 server ready <1896.697170952@dbc.mtview.ca.us>", {"SASL CRAM-MD5 PLAIN", "USER"})
           .ClientLine("AUTH").ServerLine("+OK").ServerLine(".")
           .ClientLine("AUTH CRAM-MD5").ServerLine("-ERR not today")
           .ClientLine("APOP mrose c4c9334bac560ecc979e58001b3e22fb").ServerLine("+OK maildrop has 1 message"),
       [](C& c, R&) { return c.SetUseSasl(true), c.Login(); }, rc::kOk},
      {"a SASL step that fails sends *",
       Greeted("+OK ready", {"SASL CRAM-MD5", "USER"}).ClientLine("AUTH").ServerLine("-ERR")
           .ClientLine("AUTH CRAM-MD5").ServerLine("+ !!!").ClientLine("*").ServerLine("-ERR cancelled"),
       [](C& c, R&) { return c.LoginSasl(kSaslCramMd5); }, rc::kSaslUnexpectedChallenge},
      {"List(5) answered with 6", Script(plain).ClientLine("LIST 5").ServerLine("+OK 6 120"),
       [](C& c, R&) { return c.List(5, &size); }, rc::kPop3List},
      {"status line neither + nor -, then NOOP still works",
       Script(plain).ClientLine("NOOP").ServerLine("OK").ClientLine("NOOP").ServerLine("+OK"),
       [](C& c, R&) {
         EXPECT_EQ(c.Noop(), rc::kPop3Malformed);
         EXPECT_EQ(c.last_reply(), "OK");
         return c.Noop();
       },
       rc::kOk},
      {"a listing line that does not parse: read to its end",
       Script(plain).ClientLine("LIST").ServerLine("+OK").ServerLine("1 120").ServerLine("two 5").ServerLine("3 9")
           .ServerLine(".").ClientLine("RSET").ServerLine("+OK"),
       [](C& c, R&) { return c.ListAll() == rc::kPop3Malformed ? c.Reset() : rc::kFail; }, rc::kOk, {"list 1 120"}},
      {"a status line of megabytes ends at the line bound", Script(plain).ClientLine("STAT").Server(megabytes),
       [](C& c, R&) { return c.SetMaxLineLength(1 << 20), c.Stat(&count, &size); }, rc::kSockTooLong},
      {"a message that never ends: the close ends it", endless.Close(),
       [](C& c, R&) { return c.Retrieve(1); }, rc::kSockClosed, std::vector<std::string>(1000, "line")},
      {"QUIT closes whatever the answer", Script(plain).ClientLine("QUIT").ServerLine("-ERR not all deleted"),
       [](C& c, R&) { return c.Quit(); }, rc::kPop3Refused},
  };
  for (Row& row : rows) {
    SCOPED_TRACE(row.name);
    ScriptedNetwork net(row.script);
    CPop3Client c;
    Recorder r;
    c.SetNetwork(&net);
    c.SetLineHandler(&r);
    c.AddLineListener(&r);
    c.SetCredentials("mrose", "tanstaaf");
    ASSERT_EQ(c.Connect("pop.test", 110), rc::kOk);
    EXPECT_EQ(row.run(c, r), row.want);
    EXPECT_EQ(r.got, row.got);
    EXPECT_EQ(net.Mismatch(), "");
    EXPECT_TRUE(net.Finished() || row.want == rc::kSockTooLong);  // the rest of the long line stays unread
    // QUIT, the peer's close and a line over the bound (the stream is out of step) close it.
    EXPECT_EQ(c.connected(), row.want != rc::kPop3Refused && row.want != rc::kSockClosed && row.want != rc::kSockTooLong);
  }
}

TEST(Pop3StatusTest, Readers) {
  const std::pair<const char*, const char*> stamps[] = {
      {"+OK ready <1.2@host>", "<1.2@host>"},
      {"+OK <a@b> more text", "<a@b> mo"},  // j characters from "<", as the greeting rule says
      {"+OK no stamp", ""}, {"+OK >a< b", ""}, {"+OK <open", ""},
  };
  for (const auto& [greeting, want] : stamps) EXPECT_EQ(ApopTimestamp(greeting), want) << greeting;

  const std::pair<const char*, uint32_t> capa[] = {
      {"USER", 3}, {"Top", 8}, {"STLS", 64}, {"SASL PLAIN CRAM-MD5 NTLM", 4}, {"USER ", 0}, {"RESP-CODES", 0},
  };
  for (const auto& [line, bits] : capa) {
    uint32_t caps = 0, sasl = 99;
    ApplyCapaLine(line, &caps, &sasl);
    EXPECT_EQ(caps, bits) << line;
    EXPECT_EQ(sasl, bits == 4 ? kSaslPlain | kSaslCramMd5 : 99u) << line;
  }

  const std::pair<const char*, std::pair<uint32_t, uint64_t>> pairs[] = {
      {"2 320", {2, 320}}, {" 7  5000000000 extra", {7, 5000000000}}, {"4294967296 1", {}}, {"1 x", {}}, {"", {}}};
  for (const auto& [text, want] : pairs) {
    std::pair<uint32_t, uint64_t> got{};
    EXPECT_EQ(ParseNumberAndSize(text, &got.first, &got.second), want.first != 0) << text;
    EXPECT_EQ(got, want) << text;
  }
}

}  // namespace
}  // namespace trv
