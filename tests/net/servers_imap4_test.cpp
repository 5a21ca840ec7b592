// CImap4Client against the harness's Dovecot, for what the whole-run tests in
// tests/services do not reach: the ways in (STARTTLS, IMAPS, SOCKS 5,
// LOGINDISABLED for an address Dovecot does not trust), the folder commands
// on non-ASCII names as Dovecot stores them on disk, APPEND's date, and
// commands pipelined and finished out of order.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <set>

#include "base/date_value.h"
#include "net/imap4_client.h"
#include "tests/net/net_test_util.h"
#include "tests/support/mail_servers.h"

namespace trv {
namespace {

using test::MailServers;

struct Log final : LineListener {
  std::string all;
  void OnLine(CMailSocket&, LineDirection d, uint32_t, std::string_view line) override {
    all += (d == kLineSent ? "S " : "R ") + std::string(line) + "\n";
  }
};

// Takes every literal of a whole body, kept as "tag number bytes".
struct Bodies final : Imap4LiteralHook {
  std::vector<std::string> got;
  bool TakeLiteral(const Imap4LiteralContext& c) override {
    if (c.item != "BODY[]") return false;
    return got.push_back(std::string(c.tag) + " " + std::to_string(c.number) + " "), true;
  }
  Result OnLiteralBytes(std::string_view piece) override { return got.back().append(piece), rc::kOk; }
};

const std::string kDots = "Subject: dots\r\nX-8bit: \xe4\xf6\xfc\r\n\r\nfirst\r\n.\r\n..\r\n.x\r\n\xff\x80 end\r\n";
const std::string kTwo = "Subject: two\r\nMessage-ID: <two@test>\r\n\r\nbody\r\n";

TEST(Imap4ServersTest, EveryWayIn) {
  MailServers& servers = MailServers::Instance();
  TRV_REQUIRE_SERVER(servers.Dovecot());
  TRV_REQUIRE_SERVER(servers.Microsocks());
  test::TrustTestCa();
  ASSERT_NE(servers.Deliver(MailServers::Alice().name, kDots), "");
  const test::ServerPorts& p = servers.ports();
  const test::MailUser& alice = MailServers::Alice();
  struct Row {
    const char* name;
    std::function<void(CImap4Client&)> setup;
    uint16_t port;
    bool starttls = false;
    bool untrusted = false;  // Dovecot offers no plaintext LOGIN to it
  };
  const Row rows[] = {
      {"STARTTLS then LOGIN", nullptr, p.imap, true},
      {"implicit TLS", [](CImap4Client& c) { c.SetPlainMode(false).Ignore(); }, p.imaps},
      {"SOCKS 5", [&p](CImap4Client& c) { c.SetSocks(kSocks5, "127.0.0.1", p.microsocks); }, p.imap},
      {"from 127.0.0.2: LOGINDISABLED, then STARTTLS", [](CImap4Client& c) { c.SetLocalAddress("127.0.0.2"); },
       p.imap, true, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    CImap4Client c;
    Log log;
    Bodies bodies;
    c.AddLineListener(&log);
    c.SetLiteralHook(&bodies);
    c.SetTimeout(5);
    if (row.setup) row.setup(c);
    ASSERT_EQ(c.Connect("localhost", row.port), rc::kOk) << c.lastReply();
    if (row.starttls) {
      ASSERT_EQ(c.Capability(false), rc::kOk);
      EXPECT_EQ((c.capabilities() & kImap4CapLoginDisabled) != 0, row.untrusted);
      if (row.untrusted) {
        const uint32_t tags = c.tag_counter();
        const size_t logged = log.all.size();
        EXPECT_EQ(c.Login(alice.name, alice.password), rc::kImap4Bad);
        EXPECT_TRUE(c.tag_counter() == tags && log.all.size() == logged) << "nothing sent";
      }
      ASSERT_EQ(c.StartTls(), rc::kOk) << c.tls_error_detail();
      EXPECT_FALSE(c.HasCapability("STARTTLS")) << "capabilities read again inside TLS";
      EXPECT_EQ(c.capabilities() & kImap4CapLoginDisabled, 0u);
    }
    ASSERT_EQ(c.Login(alice.name, alice.password), rc::kOk) << c.lastReply();
    EXPECT_TRUE(c.HasCapability("UIDPLUS") && c.HasCapability("idle")) << "post-login capabilities";
    EXPECT_NE(log.all.find(" LOGIN ******** ********"), std::string::npos) << log.all;
    EXPECT_EQ(log.all.find(alice.password), std::string::npos) << "the password in the log";
    ASSERT_EQ(c.Examine(u"INBOX"), rc::kOk) << c.lastReply();
    const uint32_t n = c.mailbox().exists.value_or(0);
    ASSERT_EQ(c.Fetch(1, n, "BODY.PEEK[]", false), rc::kOk) << c.lastReply();
    EXPECT_EQ(bodies.got.size(), n) << "every body, through the hook";
    EXPECT_TRUE(std::any_of(bodies.got.begin(), bodies.got.end(), [](const std::string& b) { return b.ends_with(kDots); }));
    EXPECT_EQ(c.Logout(), rc::kOk);
  }
}

// RENAME, SUBSCRIBE, LSUB and STATUS, which the runs do not send, and the
// names on disk, which tell that the encoding is not merely symmetric.
TEST(Imap4ServersTest, FolderTreeWithNonAsciiNames) {
  MailServers& servers = MailServers::Instance();
  TRV_REQUIRE_SERVER(servers.Dovecot());
  const test::MailUser& alice = MailServers::Alice();
  CImap4Client c;
  ASSERT_EQ(c.Connect("127.0.0.1", servers.ports().imap), rc::kOk);
  ASSERT_EQ(c.Login(alice.name, alice.password), rc::kOk);
  const std::string root8 = "Tree" + std::to_string(::getpid());
  const WString root(root8.begin(), root8.end()), schoen = root + u".Sch\u00f6n", leaf = schoen + u".Gr\u00fcn";
  const WString moved = root + u".Bl\u00e4tter";
  const std::filesystem::path maildir = servers.Maildir(alice.name);
  const auto names = [&c](WStringView pattern, bool lsub) {
    std::set<WString> got;
    EXPECT_EQ(lsub ? c.Lsub(u"", pattern) : c.List(u"", pattern), rc::kOk) << c.lastReply();
    for (const Imap4ListEntry& e : c.result().list) got.insert(e.name);
    return got;
  };
  for (const WString& box : {leaf, schoen + u".\u65e5\u672c"}) ASSERT_EQ(c.Create(box), rc::kOk) << c.lastReply();
  EXPECT_TRUE(std::filesystem::is_directory(maildir / ("." + root8 + ".Sch&APY-n.&ZeVnLA-")));
  EXPECT_EQ(names(root + u"*", false), (std::set<WString>{root, schoen, leaf, schoen + u".\u65e5\u672c"}));
  ASSERT_EQ(c.Subscribe(leaf), rc::kOk);
  EXPECT_EQ(names(root + u"*", true), std::set<WString>{leaf});
  ASSERT_EQ(c.Rename(leaf, moved), rc::kOk) << c.lastReply();
  EXPECT_TRUE(std::filesystem::is_directory(maildir / ("." + root8 + ".Bl&AOQ-tter")));
  ASSERT_EQ(c.Status(moved, 31), rc::kOk) << c.lastReply();
  const Imap4StatusData& st = c.result().status_items.at(0);
  EXPECT_TRUE(st.name == moved && st.messages == 0u && st.unseen == 0u && st.recent == 0u && st.uid_next == 1u &&
              st.uid_validity);
  ASSERT_EQ(c.Unsubscribe(leaf), rc::kOk);
  EXPECT_EQ(names(root + u"*", true), std::set<WString>{});

  // APPEND with a date and flags; to a mailbox that is not there, refused at once.
  CXmMemoryStream text("Subject: appended\r\n\r\n.\r\n");
  ASSERT_EQ(c.Append(moved, kImap4FlagFlagged, DateFromTimeT(1700000000), &text, 0), rc::kOk) << c.lastReply();
  EXPECT_EQ(c.Append(root + u".Missing", 0, kNoDate, &text, 0), rc::kImap4Bad);
  EXPECT_TRUE(c.result().codes & kImap4CodeTryCreate) << c.lastReply();
  ASSERT_EQ(c.Examine(moved), rc::kOk) << "still in step";
  EXPECT_EQ(c.mailbox().read_only, true);
  ASSERT_EQ(c.Fetch(1, 1, "FLAGS INTERNALDATE", false), rc::kOk);
  EXPECT_EQ(c.result().fetch.at(0).flags.value_or(0) & ~kImap4FlagRecent, kImap4FlagFlagged);
  EXPECT_EQ(TimeTFromDate(c.result().fetch.at(0).internal_date_value), 1700000000);
  ASSERT_EQ(c.CloseMailbox(), rc::kOk);

  for (const WString& gone : {moved, schoen + u".\u65e5\u672c"}) ASSERT_EQ(c.Delete(gone), rc::kOk);
  EXPECT_EQ(names(root + u"*", false), std::set<WString>{});
  EXPECT_EQ(c.Delete(moved), rc::kImap4No);
  EXPECT_EQ(c.Logout(), rc::kOk);
}

// Several commands outstanding, finished out of order: each gets its own
// answer, and each body reaches the hook under its own command's tag.
// Dovecot runs them side by side: every untagged answer comes before the
// first tagged one, and STATUS is answered first.
TEST(Imap4ServersTest, PipelinedCommandsKeepTheirAnswers) {
  MailServers& servers = MailServers::Instance();
  TRV_REQUIRE_SERVER(servers.Dovecot());
  const test::MailUser& alice = MailServers::Alice();
  ASSERT_NE(servers.Deliver(alice.name, kDots), "");
  ASSERT_NE(servers.Deliver(alice.name, kTwo), "");
  Bodies bodies;
  CImap4Client c;
  c.SetLiteralHook(&bodies);
  ASSERT_EQ(c.Connect("127.0.0.1", servers.ports().imap), rc::kOk);
  ASSERT_EQ(c.Login(alice.name, alice.password), rc::kOk);
  ASSERT_EQ(c.Examine(u"INBOX"), rc::kOk);
  const uint32_t n = c.mailbox().exists.value_or(0);
  ASSERT_GE(n, 2u);
  std::string first, second, noop, status;
  ASSERT_EQ(c.BeginFetch(n - 1, n - 1, "BODY.PEEK[]", false, &first), rc::kOk);
  const uint32_t last_uid = c.mailbox().uid_next.value_or(1) - 1;  // nothing was expunged from this INBOX
  ASSERT_EQ(c.BeginFetch(last_uid, last_uid, "BODY.PEEK[]", true, &second), rc::kOk);
  ASSERT_EQ(c.Begin("NOOP", &noop), rc::kOk);
  ASSERT_EQ(c.Begin("STATUS INBOX (MESSAGES)", &status), rc::kOk);
  EXPECT_EQ(c.outstanding(), 4u);
  ASSERT_EQ(c.Finish(status), rc::kOk);
  EXPECT_TRUE(c.result().status_items.size() == 1u && c.result().status_items[0].messages == n);
  ASSERT_EQ(c.Finish(second), rc::kOk);
  ASSERT_EQ(c.result().fetch.size(), 1u);
  EXPECT_TRUE(c.result().fetch[0].number == n && c.result().fetch[0].uid == last_uid &&
              c.result().fetch[0].Section("")->streamed);
  ASSERT_EQ(c.Finish(first), rc::kOk);
  EXPECT_EQ(c.result().fetch.at(0).number, n - 1);
  ASSERT_EQ(c.Finish(noop), rc::kOk);
  EXPECT_EQ(c.Finish(first), rc::kImap4NoAnswer) << "finished once";
  EXPECT_EQ(c.outstanding(), 0u);
  EXPECT_EQ(bodies.got, (std::vector<std::string>{first + " " + std::to_string(n - 1) + " " + kDots,
                                                  second + " " + std::to_string(n) + " " + kTwo}));
  EXPECT_EQ(c.Logout(), rc::kOk);
}

}  // namespace
}  // namespace trv
