// CSmtpClient against scripted servers, for the exact bytes a real server
// will not send: odd greetings, 251/252, malformed and endless replies, the
// "*" cancel, and the dot transformation across the 2,048-byte pieces.
#include "net/smtp_client.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <tuple>

#include "net/scripted_transport.h"
#include "tests/net/net_test_util.h"

namespace trv {
namespace {

struct Recorder final : LineListener, SmtpProgressListener, SmtpSizeConfirmer {
  std::vector<std::string> lines;
  uint64_t progress = 0;
  void OnLine(CMailSocket&, LineDirection d, uint32_t, std::string_view line) override {
    lines.push_back((d == kLineSent ? "S " : "R ") + std::string(line));
  }
  void OnDataProgress(CSmtpClient&, uint64_t sent) override { progress = sent; }
  bool SendOversized(CSmtpClient&, uint64_t, uint32_t) override { return false; }
};

using Op = std::function<Result(CSmtpClient&, std::string*)>;

// Plays script, runs op after a successful Connect and returns its result;
// the script must be played exactly. Oversized messages are refused.
Result Play(const Script& script, const Op& op, std::string* out, Recorder* recorder = nullptr) {
  ScriptedNetwork net(script);
  CSmtpClient c;
  Recorder own;
  Recorder* rec = recorder ? recorder : &own;
  c.SetNetwork(&net);
  c.SetHeloDomain("client.test");
  c.AddLineListener(rec);
  c.AddProgressListener(rec);
  c.SetSizeConfirmer(rec);
  Result r = c.Connect("mx.test", 25);
  if (r.ok() && op) r = op(c, out);
  EXPECT_EQ(net.Mismatch(), "");
  // A client that gives up on an overlong line leaves the rest unread.
  EXPECT_TRUE(net.Finished() || r == rc::kSockTooLong) << net.Written();
  if (out->empty()) *out = c.last_reply();
  return r;
}

Script Ready() { return Script().ServerLine("220 ready"); }

Script Ehlo(std::string_view last) {
  return Ready().ClientLine("EHLO client.test").ServerLine("250-mx.test").ServerLine(last);
}

TEST(SmtpClientTest, RepliesAndCommands) {
  std::string endless;
  for (size_t i = 0; i < SmtpReply::kMaxLines; ++i) endless += "250-x\r\n";
  auto rcpt = [](CSmtpClient& c, std::string*) { return c.RcptTo("a@b.test"); };
  auto rcpt_dsn = [](CSmtpClient& c, std::string*) { return c.Ehlo().ok() ? c.RcptToDsn("a@b.test", "", "", false, 0) : rc::kFail; };
  auto noop = [](CSmtpClient& c, std::string*) { return c.Noop(); };
  struct Row { const char* name; Script script; Op op; Result want; std::string out; };  // out: op's, else last_reply()
  const Row rows[] = {
      {"greeting of two lines", Script().ServerLine("220-mx.test").ServerLine("220 ready"), nullptr, rc::kOk, ""},
      {"bare 220 keeps reading", Script().ServerLine("220").ServerLine("220 ready"), nullptr, rc::kOk, ""},
      {"greeting refused", Script().ServerLine("554 go away"), nullptr, Result(0x80C3E036), "554 go away"},
      {"RcptTo takes 251", Ready().ClientLine("RCPT TO:<a@b.test>").ServerLine("251 forwarded"), rcpt, rc::kOk, ""},
      {"RcptToDsn refuses 251", Ehlo("250 DSN").ClientLine("RCPT TO:<a@b.test> NOTIFY=NEVER").ServerLine("251 fw"),
       rcpt_dsn, Result(0x80C35EB3), "251 fw"},
      {"code of letters", Ready().ClientLine("NOOP").ServerLine("abc d"), noop, Result(0x80C30080), "abc d"},
      {"line of 2 MB", Ready().ClientLine("NOOP").Server(std::string(2 << 20, '2')), noop, rc::kSockTooLong, ""},
      {"silent mid-reply", Ready().ClientLine("NOOP").ServerLine("250-a").Silence(), noop, rc::kSockTimedOut, ""},
      {"reply that never ends", Ready().ClientLine("NOOP").Server(endless), noop, rc::kSockTooLong, ""},
      {"closed mid-DATA",
       Ready().ClientLine("DATA").ServerLine("354 go").Client("hello\r\n.\r\n").Close(),
       [](CSmtpClient& c, std::string*) { CXmViewStream m("hello"); return c.Data(m, 0); }, rc::kSockClosed, ""},
      {"oversized message refused before DATA", Ehlo("250 SIZE 10"),
       [](CSmtpClient& c, std::string*) { CXmViewStream m("more than ten"); return c.Ehlo().ok() ? c.Data(m, 0) : rc::kFail; },
       rc::kSmtpTooLarge, ""},
      {"Quit closes after a refusal", Ready().ClientLine("QUIT").ServerLine("500 what"),
       [](CSmtpClient& c, std::string* out) { Result r = c.Quit(); *out = c.connected() ? "open" : "closed"; return r; },
       Result(0x80C3C500), "closed"},
      {"Verify 251", Ready().ClientLine("VRFY a").ServerLine("251 not local, try < a@b.test >"),
       [](CSmtpClient& c, std::string* out) { return c.Verify("a", out); }, rc::kOk, "a@b.test"},
  };
  for (const Row& row : rows) {
    std::string out;
    EXPECT_EQ(Play(row.script, row.op, &out), row.want) << row.name;
    EXPECT_EQ(out, row.out) << row.name;
  }
}

TEST(SmtpClientTest, EhloLines) {
  struct Row { std::vector<const char*> lines; uint32_t extensions, mechanisms, max_size; };
  const Row rows[] = {
      {{"250-AUTH=LOGIN PLAIN", "250-auth CRAM-MD5 DIGEST-MD5 NTLM"}, kSmtpAuth, 7, 0},
      {{"250-Size  10240000 "}, kSmtpSize, 0, 10240000},
      {{"250-EXPN", "250-vrfy", "250-DSN", "250-EnhancedStatusCodes", "250 STARTTLS", "250-8BITMIME", "250-"},
       kSmtpExpn | kSmtpVrfy | kSmtpDsn | kSmtpEnhancedStatusCodes | kSmtpStartTls, 0, 0},
  };
  for (const Row& row : rows) {
    uint32_t ext = 0, mech = 0, size = 0;
    for (const char* line : row.lines) ParseEhloLine(line, &ext, &mech, &size);
    EXPECT_EQ(std::tuple(ext, mech, size), std::tuple(row.extensions, row.mechanisms, row.max_size)) << row.lines[0];
  }
}

// Data sends exactly `sent` for `message`, and reports every source byte.
void ExpectData(const std::string& message, const std::string& sent, const std::string& name) {
  Recorder rec;
  std::string out;
  CXmViewStream stream(message);
  EXPECT_EQ(Play(Ready().ClientLine("DATA").ServerLine("354 go").Client(sent).ServerLine("250 queued"),
                [&](CSmtpClient& c, std::string*) { return c.Data(stream, 0); }, &out, &rec),
            rc::kOk)
      << name;
  EXPECT_EQ(rec.progress, message.size()) << name;
  EXPECT_EQ(rec.lines.back(), "R 250 queued");
  EXPECT_EQ(rec.lines[rec.lines.size() - 2], "S .");
}

TEST(SmtpClientTest, DataDoublesLoneDotsOnly) {
  ExpectData(".\r\nx\r\n.x\r\n..\r\n", ".\r\nx\r\n.x\r\n..\r\n\r\n.\r\n", "first line and longer lines");
  ExpectData("a\r\n.\r\n.\r\nb", "a\r\n..\r\n..\r\nb\r\n.\r\n", "two lone dots in a row");
  ExpectData("a\r\n.", "a\r\n..\r\n.\r\n", "a lone dot at the end");
  // The lone dot across the 2,048-byte pieces at every position.
  for (size_t at = CSmtpClient::kDataPiece - 6; at <= CSmtpClient::kDataPiece + 1; ++at) {
    const std::string head(at, 'h');
    ExpectData(head + "\r\n.\r\ntail", head + "\r\n..\r\ntail\r\n.\r\n", "dot at " + std::to_string(at));
  }
}

TEST(SmtpClientTest, AuthenticateCancelsABadChallengeAndNeedsAMechanism) {
  const Script offer = Ehlo("250 AUTH PLAIN LOGIN CRAM-MD5");
  // sent: the lines after EHLO as the log shows them.
  struct Row { const char* name; Script script; bool use_sasl; Result want; std::vector<std::string> sent; };
  const Row rows[] = {
      // LOGIN before PLAIN, PLAIN after a refusal and their masking: the Postfix sessions.
      {"bad challenge cancels with *",
       Script(offer).ClientLine("AUTH CRAM-MD5").ServerLine("334 !!!").ClientLine("*").ServerLine("501 cancelled"),
       true, rc::kSaslUnexpectedChallenge, {"S AUTH CRAM-MD5", "S *"}},
      {"nothing offered", Ehlo("250 AUTH DIGEST-MD5"), true, rc::kSmtpNoMechanism, {}},
  };
  for (const Row& row : rows) {
    Recorder rec;
    std::string out;
    EXPECT_EQ(Play(row.script,
                  [&](CSmtpClient& c, std::string*) {
                    c.SetUseSasl(row.use_sasl);
                    return c.Ehlo().ok() ? c.Authenticate("u", "p") : rc::kFail;
                  },
                  &out, &rec),
              row.want)
        << row.name;
    std::vector<std::string> sent;
    std::copy_if(rec.lines.begin() + 4, rec.lines.end(), std::back_inserter(sent), [](auto& l) { return l[0] == 'S'; });
    EXPECT_EQ(sent, row.sent) << row.name;
  }
}

}  // namespace
}  // namespace trv
