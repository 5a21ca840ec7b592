// CImap4Client against the harness's Dovecot, each test a whole session: the
// ways in (STARTTLS, IMAPS, SOCKS 5, LOGINDISABLED for an address Dovecot
// does not trust), a folder tree with non-ASCII names as Dovecot stores it on
// disk, and the message commands on delivered messages, byte for byte.
// Folders get unique names, so the tests do not depend on each other.
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
  std::vector<std::string> lines;
  void OnLine(CMailSocket&, LineDirection d, uint32_t, std::string_view line) override {
    lines.push_back((d == kLineSent ? "S " : "R ") + std::string(line));
  }
  bool Holds(std::string_view part) const {
    return std::any_of(lines.begin(), lines.end(), [&](const std::string& l) { return l.find(part) != l.npos; });
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

Result Open(CImap4Client& c, const test::MailUser& user) {
  if (Result r = c.Connect("127.0.0.1", MailServers::Instance().ports().imap); r.failed()) return r;
  return c.Login(user.name, user.password);
}

WString Unique(std::u16string_view stem) {
  static int counter = 0;
  const std::string n = std::to_string(::getpid()) + "-" + std::to_string(++counter);
  return WString(stem) + WString(n.begin(), n.end());
}

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
        const size_t logged = log.lines.size();
        EXPECT_EQ(c.Login(alice.name, alice.password), rc::kImap4Bad);
        EXPECT_EQ(c.tag_counter(), tags) << "nothing sent";
        EXPECT_EQ(log.lines.size(), logged) << "nothing sent";
      }
      ASSERT_EQ(c.StartTls(), rc::kOk) << c.tls_error_detail();
      EXPECT_FALSE(c.HasCapability("STARTTLS")) << "capabilities read again inside TLS";
      EXPECT_EQ(c.capabilities() & kImap4CapLoginDisabled, 0u);
    }
    ASSERT_EQ(c.Login(alice.name, alice.password), rc::kOk) << c.lastReply();
    EXPECT_TRUE(c.authenticated());
    EXPECT_TRUE(c.HasCapability("UIDPLUS") && c.HasCapability("idle")) << "post-login capabilities";
    EXPECT_TRUE(log.Holds(" LOGIN ******** ********"));
    EXPECT_FALSE(log.Holds(alice.password)) << "the password in the log";
    ASSERT_EQ(c.Examine(u"INBOX"), rc::kOk) << c.lastReply();
    const uint32_t n = c.mailbox().exists.value_or(0);
    ASSERT_GT(n, 0u);
    ASSERT_EQ(c.Fetch(1, n, "BODY.PEEK[]", false), rc::kOk) << c.lastReply();
    EXPECT_EQ(bodies.got.size(), n) << "every body, through the hook";
    EXPECT_TRUE(std::any_of(bodies.got.begin(), bodies.got.end(), [](const std::string& b) { return b.ends_with(kDots); }));
    EXPECT_EQ(c.Logout(), rc::kOk);
  }
}

TEST(Imap4ServersTest, FolderTreeWithNonAsciiNames) {
  MailServers& servers = MailServers::Instance();
  TRV_REQUIRE_SERVER(servers.Dovecot());
  const test::MailUser& alice = MailServers::Alice();
  CImap4Client c;
  ASSERT_EQ(Open(c, MailServers::Bob()), rc::kOk) << "quoted: a blank in the password";
  ASSERT_EQ(c.Logout(), rc::kOk);
  ASSERT_EQ(Open(c, alice), rc::kOk) << "a new session on the same client";
  ASSERT_EQ(c.List(u"", u""), rc::kOk);
  ASSERT_EQ(c.result().list.size(), 1u);
  const std::string sep8 = c.result().list[0].separator;
  ASSERT_EQ(sep8.size(), 1u);
  const WString sep(1, static_cast<char16_t>(sep8[0]));
  const WString root = Unique(u"Tree"), schoen = root + sep + u"Sch\u00f6n";
  const std::string root8(root.begin(), root.end());
  const std::filesystem::path maildir = servers.Maildir(alice.name);
  const auto names = [&c](WStringView pattern, bool lsub) {
    std::set<WString> got;
    EXPECT_EQ(lsub ? c.Lsub(u"", pattern) : c.List(u"", pattern), rc::kOk) << c.lastReply();
    for (const Imap4ListEntry& e : c.result().list) got.insert(e.name);
    return got;
  };
  for (const WString& leaf : {schoen + sep + u"Gr\u00fcn", schoen + sep + u"\u65e5\u672c"}) {
    ASSERT_EQ(c.Create(leaf), rc::kOk) << c.lastReply();
  }
  for (const char* disk : {".Sch&APY-n.Gr&APw-n", ".Sch&APY-n.&ZeVnLA-"}) {
    EXPECT_TRUE(std::filesystem::is_directory(maildir / ("." + root8 + disk))) << disk;
  }
  EXPECT_EQ(names(root + u"*", false), (std::set<WString>{root, schoen, schoen + sep + u"Gr\u00fcn",
                                                          schoen + sep + u"\u65e5\u672c"}));
  for (const Imap4ListEntry& e : c.result().list) {
    if (e.name != schoen) continue;
    EXPECT_EQ(e.raw, root8 + sep8 + "Sch&APY-n");
    EXPECT_TRUE(e.attributes & kImap4AttrHasChildren);
  }
  const WString leaf = schoen + sep + u"Gr\u00fcn", moved = root + sep + u"Bl\u00e4tter";
  ASSERT_EQ(c.Subscribe(leaf), rc::kOk);
  EXPECT_EQ(names(root + u"*", true), std::set<WString>{leaf});
  ASSERT_EQ(c.Rename(leaf, moved), rc::kOk) << c.lastReply();
  EXPECT_TRUE(std::filesystem::is_directory(maildir / ("." + root8 + ".Bl&AOQ-tter")));
  EXPECT_EQ(names(moved, false), std::set<WString>{moved});
  ASSERT_EQ(c.Status(moved, 31), rc::kOk) << c.lastReply();
  const Imap4StatusData& st = c.result().status_items.at(0);
  EXPECT_TRUE(st.name == moved && st.messages == 0u && st.unseen == 0u && st.recent == 0u && st.uid_next == 1u &&
              st.uid_validity);
  ASSERT_EQ(c.Unsubscribe(leaf), rc::kOk);
  EXPECT_EQ(names(root + u"*", true), std::set<WString>{});
  for (const WString& gone : {moved, schoen + sep + u"\u65e5\u672c"}) ASSERT_EQ(c.Delete(gone), rc::kOk);
  EXPECT_EQ(names(root + u"*", false), std::set<WString>{});
  EXPECT_EQ(c.Delete(moved), rc::kImap4No);
  EXPECT_NE(c.lastReply(), "");
  EXPECT_EQ(c.Logout(), rc::kOk);
}

TEST(Imap4ServersTest, MessageCommandsOnDeliveredMessages) {
  MailServers& servers = MailServers::Instance();
  TRV_REQUIRE_SERVER(servers.Dovecot());
  const test::MailUser& alice = MailServers::Alice();
  ASSERT_NE(servers.Deliver(alice.name, kDots), "");
  ASSERT_NE(servers.Deliver(alice.name, kTwo), "");
  CImap4Client c;
  ASSERT_EQ(Open(c, alice), rc::kOk) << c.lastReply();
  const WString box = Unique(u"Kopie");
  ASSERT_EQ(c.Create(box), rc::kOk) << c.lastReply();

  ASSERT_EQ(c.Select(u"INBOX"), rc::kOk) << c.lastReply();
  const Imap4MailboxData inbox = c.mailbox();
  ASSERT_GE(inbox.exists.value_or(0), 2u);
  const uint32_t n = *inbox.exists;  // kDots is n - 1, kTwo is n
  EXPECT_TRUE(inbox.uid_validity && inbox.uid_next >= n + 1 && inbox.read_only == false);
  EXPECT_EQ(inbox.permanent_flags, 63u) << "the five flags and \\*";

  struct Item {
    const char* items;
    const char* section;
    std::optional<uint32_t> origin;
    std::string first, second;  // of message n - 1 and n
  };
  const Item items[] = {
      {"BODY.PEEK[HEADER]", "HEADER", std::nullopt, kDots.substr(0, kDots.find("\r\n\r\n") + 4),
       kTwo.substr(0, kTwo.find("\r\n\r\n") + 4)},
      {"BODY.PEEK[HEADER.FIELDS (Message-ID)]", "HEADER.FIELDS (MESSAGE-ID)", std::nullopt, "\r\n",
       "Message-ID: <two@test>\r\n\r\n"},
      {"BODY.PEEK[]<0.20>", "", 0, kDots.substr(0, 20), kTwo.substr(0, 20)},
      {"BODY.PEEK[]<50.9>", "", 50, kDots.substr(50, 9), ""},  // past the end of kTwo: {0}
  };
  for (const Item& item : items) {
    SCOPED_TRACE(item.items);
    ASSERT_EQ(c.Fetch(n - 1, n, std::string("UID ") + item.items, false), rc::kOk) << c.lastReply();
    ASSERT_EQ(c.result().fetch.size(), 2u);
    for (const Imap4FetchData& f : c.result().fetch) {
      const Imap4Section* s = f.Section(item.section);
      ASSERT_TRUE(s && f.uid);
      EXPECT_EQ(s->bytes, f.number == n ? item.second : item.first);
      EXPECT_EQ(s->origin, item.origin);
    }
  }
  const uint32_t uid1 = *c.result().fetch[0].uid, uid2 = *c.result().fetch[1].uid;
  EXPECT_EQ(c.Fetch(n + 1, n + 1, "UID", false), rc::kImap4Bad) << "no such message";

  ASSERT_EQ(c.Copy(uid1, uid2, box, true), rc::kOk) << c.lastReply();
  const Imap4UidPlusData copied = c.result().copy_uid.value_or(Imap4UidPlusData{});
  EXPECT_TRUE(copied.source.Count() == 2 && copied.source.At(1) == uid2 && copied.destination.At(1) == 2u);
  const uint32_t box_validity = copied.uid_validity;

  CXmMemoryStream third("Subject: appended\r\n\r\n.\r\n");
  const double date = DateFromTimeT(1700000000);
  ASSERT_EQ(c.Append(box, kImap4FlagSeen | kImap4FlagFlagged, date, &third, 0), rc::kOk) << c.lastReply();
  const Imap4UidPlusData appended = c.result().append_uid.value_or(Imap4UidPlusData{});
  EXPECT_TRUE(appended.uid_validity == box_validity && appended.destination.At(0) == 3u);
  // Dovecot refuses at once instead of asking for the literal.
  EXPECT_EQ(c.Append(Unique(u"Missing"), 0, kNoDate, &third, 0), rc::kImap4Bad);
  EXPECT_TRUE(c.result().codes & kImap4CodeTryCreate) << c.lastReply();
  ASSERT_EQ(c.Noop(), rc::kOk) << "still in step";

  ASSERT_EQ(c.Examine(box), rc::kOk);
  EXPECT_TRUE(c.mailbox().exists == 3u && c.mailbox().read_only == true && c.mailbox().uid_validity == box_validity);
  EXPECT_EQ(c.mailbox().permanent_flags.value_or(0), 0u);
  ASSERT_EQ(c.Select(box), rc::kOk);
  EXPECT_EQ(c.mailbox().read_only, false);
  ASSERT_EQ(c.Store(1, 2, 1, kImap4FlagDeleted, false, false), rc::kOk);
  ASSERT_EQ(c.Store(3, 3, 0, kImap4FlagAnswered, true, false), rc::kOk);
  ASSERT_EQ(c.Fetch(1, 3, "FLAGS INTERNALDATE", false), rc::kOk);
  std::vector<uint32_t> flags;
  for (const Imap4FetchData& f : c.result().fetch) flags.push_back(f.flags.value_or(99) & ~kImap4FlagRecent);
  EXPECT_EQ(flags, (std::vector<uint32_t>{kImap4FlagDeleted, kImap4FlagDeleted, kImap4FlagAnswered}));
  EXPECT_EQ(TimeTFromDate(c.result().fetch.at(2).internal_date_value), 1700000000) << "APPEND's date";

  ASSERT_EQ(c.UidExpunge(2, 2), rc::kOk);
  EXPECT_EQ(c.result().expunged, std::vector<uint32_t>{2});
  ASSERT_EQ(c.Expunge(), rc::kOk);
  EXPECT_EQ(c.result().expunged, std::vector<uint32_t>{1});
  EXPECT_EQ(c.mailbox().exists, 1u);
  ASSERT_EQ(c.Fetch(1, 1, "UID BODY.PEEK[]", false), rc::kOk);
  EXPECT_EQ(c.result().fetch.at(0).uid, 3u);
  EXPECT_EQ(c.result().fetch.at(0).Section("")->bytes, "Subject: appended\r\n\r\n.\r\n");
  ASSERT_EQ(c.CloseMailbox(), rc::kOk);
  EXPECT_EQ(c.Delete(box), rc::kOk);
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
  ASSERT_EQ(Open(c, alice), rc::kOk);
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
  ASSERT_EQ(c.result().status_items.size(), 1u);
  EXPECT_EQ(c.result().status_items[0].messages, n);
  ASSERT_EQ(c.Finish(second), rc::kOk);
  ASSERT_EQ(c.result().fetch.size(), 1u);
  EXPECT_EQ(c.result().fetch[0].number, n);
  EXPECT_TRUE(c.result().fetch[0].uid == last_uid && c.result().fetch[0].Section("")->streamed);
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
