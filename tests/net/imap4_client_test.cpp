// CImap4Client on transcripts, for the exact bytes and the bad input a real
// server will not send (the real sessions, with LOGIN and APPEND, are in the
// servers tests).
#include "net/imap4_client.h"

#include <gtest/gtest.h>

#include <functional>

#include "net/scripted_transport.h"
#include "tests/net/net_test_util.h"

namespace trv {
namespace {

// Keeps the log, the literal hook's bytes and the FETCH listener's calls.
struct Recorder final : LineListener, Imap4LiteralHook, Imap4FetchListener {
  std::vector<std::string> log, fetched;
  std::string hooked, context;
  void OnLine(CMailSocket&, LineDirection d, uint32_t, std::string_view line) override {
    log.push_back((d == kLineSent ? "S " : "R ") + std::string(line));
  }
  bool TakeLiteral(const Imap4LiteralContext& c) override {
    if (c.section != "") return false;  // whole bodies only
    context = std::string(c.tag) + " " + std::to_string(c.number) + " " + std::string(c.item) + " " +
              std::to_string(c.origin.value_or(99)) + " " + std::to_string(c.size);
    return true;
  }
  Result OnLiteralBytes(std::string_view piece) override { return hooked += piece, rc::kOk; }
  void OnFetch(std::string_view tag, const Imap4FetchData& d) override {
    fetched.push_back(std::string(tag) + ":" + std::to_string(d.uid.value_or(0)));
  }
};

using C = CImap4Client;
using R = Recorder;
const Script kGreeted = Script().ServerLine("* OK [CAPABILITY IMAP4rev1 UIDPLUS] ready");
const std::string kPrefix = "Subject: (a \"quoted\" ] {3}\r\nFrom: x\r\n";  // nothing in a literal is syntax
const std::string kHeader = kPrefix + std::string(342 - kPrefix.size(), 'h');

struct Row {
  const char* name;
  Script script;
  std::function<Result(C&, R&)> run;
  Result want;
  bool stays_connected = true;
};

TEST(Imap4ClientTest, Transcripts) {
  const auto fetch1 = [](C& c) { return c.Fetch(1, 1, "BODY.PEEK[HEADER]", false); };
  Row rows[] = {
      {"tags from 0; quoting keeps the last character unexamined; modified UTF-7",
       Script(kGreeted).ClientLine("0 CREATE \"My Folder\"").ServerLine("0 OK").ClientLine("1 CREATE Sent*")
           .ServerLine("1 OK").ClientLine("2 CREATE \"\"").ServerLine("2 OK").ClientLine("3 RENAME Entw&APw-rfe \"a\"b\"")
           .ServerLine("3 OK"),
       [](C& c, R&) {
         for (const char16_t* name : {u"My Folder", u"Sent*", u""}) EXPECT_EQ(c.Create(name), rc::kOk);
         return c.Rename(u"Entw\u00fcrfe", u"a\"b");
       },
       rc::kOk},
      {"sequence sets, flag and STATUS item order, COPYUID",
       Script(kGreeted).ClientLine("0 UID STORE 1:* +FLAGS.SILENT (\\Answered \\Deleted \\Seen)").ServerLine("0 OK")
           .ClientLine("1 STATUS INBOX (MESSAGES UIDNEXT UIDVALIDITY)")
           .ServerLine("* STATUS INBOX (MESSAGES 3 UIDNEXT 9 UIDVALIDITY 7)").ServerLine("1 OK")
           .ClientLine("2 UID COPY 3:7 Archiv").ServerLine("2 OK [COPYUID 7 3:7 20:22,30,31] done")
           .ClientLine("3 UID EXPUNGE 4").ServerLine("3 OK"),
       [](C& c, R&) {
         EXPECT_EQ(c.Store(0, C::kAll, 1, kImap4FlagSeen | kImap4FlagDeleted | kImap4FlagAnswered, true, true), rc::kOk);
         EXPECT_EQ(c.Status(u"INBOX", kImap4StatusUidValidity | kImap4StatusUidNext | kImap4StatusMessages), rc::kOk);
         EXPECT_EQ(c.result().status_items.at(0).uid_next, 9u);
         EXPECT_EQ(c.Copy(3, 7, u"Archiv", true), rc::kOk);
         const Imap4UidPlusData& copy = c.result().copy_uid.value();
         EXPECT_EQ(copy.destination.Count(), 5u);
         EXPECT_EQ(copy.destination.At(3), 30u);
         return c.UidExpunge(4, 4);
       },
       rc::kOk},
      {"a header literal {342} continued on the next line, then a second response",
       Script(kGreeted).ClientLine("0 FETCH 1 BODY.PEEK[HEADER]").Server("* 1 FETCH (UID 7 BODY[HEADER] {342}\r\n")
           .Server(kHeader).ServerLine(" FLAGS (\\Seen $Junk) INTERNALDATE \" 5-Jan-2005 09:05:07 +0100\")")
           .ServerLine("0 OK"),
       [&](C& c, R&) {
         const Result r = fetch1(c);
         const Imap4FetchData& d = c.result().fetch.at(0);
         EXPECT_EQ(d.Section("header")->bytes, kHeader);
         EXPECT_EQ(d.flags, kImap4FlagSeen);
         EXPECT_EQ(d.keywords, std::vector<std::string>{"$Junk"});
         EXPECT_EQ(TimeTFromDate(d.internal_date_value), 1104912307);
         return r;
       },
       rc::kOk},
      {"several literals in one response; the hook streams the whole body only",
       Script(kGreeted).ClientLine("0 FETCH 1 BODY.PEEK[HEADER]")
           .Server("* 1 FETCH (BODY[HEADER] {4}\r\n)\"]{BODY[]<0> {6}\r\nbody\r\n UID 5 RFC822.TEXT NIL)\r\n0 OK\r\n"),
       [&](C& c, R& r) {
         c.SetLiteralHook(&r);
         const Result result = fetch1(c);
         const Imap4FetchData& d = c.result().fetch.at(0);
         EXPECT_EQ(d.Section("HEADER")->bytes, ")\"]{");
         EXPECT_TRUE(d.Section("")->streamed && d.Section("")->bytes.empty() && d.Section("")->size == 6);
         EXPECT_TRUE(d.Section("TEXT")->nil);
         EXPECT_EQ(r.hooked, "body\r\n");
         EXPECT_EQ(r.context, "0 1 BODY[]<0> 0 6");
         EXPECT_EQ(d.uid, 5u);
         return result;
       },
       rc::kOk},
      {"BYE mid-command", Script(kGreeted).ClientLine("0 NOOP").ServerLine("* BYE going down"),
       [](C& c, R&) { return c.Noop(); }, rc::kImap4Bad},
      {"LOGINDISABLED sends nothing; no STARTTLS capability sends nothing",
       Script().ServerLine("* OK [CAPABILITY IMAP4rev1 LOGINDISABLED] hi"),
       [](C& c, R&) {
         EXPECT_EQ(c.Login("joe", "pw"), rc::kImap4Bad);
         return c.StartTls();
       },
       rc::kImap4NoStartTls},
      {"LOGIN: 8-bit bytes or a quote go as literals, each after the server's \"+\"",
       Script(kGreeted).ClientLine("0 LOGIN {4}").ServerLine("+ go").ClientLine("j\"oe {5}").ServerLine("+ go")
           .ClientLine("p\xc3\xa4ss").ServerLine("0 OK in")
           .ClientLine("1 CAPABILITY").ServerLine("* CAPABILITY IMAP4rev1").ServerLine("1 OK"),
       [](C& c, R&) { return c.Login("j\"oe", "p\xc3\xa4ss"); }, rc::kOk},
      {"a literal over the limit is not read",
       Script(kGreeted).ClientLine("0 FETCH 1 BODY.PEEK[HEADER]").ServerLine("* 1 FETCH (BODY[HEADER] {5000000000}"),
       [&](C& c, R&) { return fetch1(c); }, rc::kImap4LiteralTooLarge, false},
      {"a tagged answer with an unknown tag", Script(kGreeted).ClientLine("0 NOOP").ServerLine("7 OK"),
       [](C& c, R&) { return c.Noop(); }, rc::kImap4UnknownTag, false},
      {"unbalanced parentheses, NIL for a string or number, FETCH beyond EXISTS: malformed, still in step",
       Script(kGreeted).ClientLine("0 SELECT A").ServerLine("* 2 EXISTS").ServerLine("* OK [UIDNEXT 5] x")
           .ServerLine("0 OK").ClientLine("1 FETCH 1 BODY.PEEK[HEADER]").ServerLine("* 1 FETCH (UID 5 FLAGS (\\Seen)")
           .ServerLine("* 3 FETCH (UID 6)").ServerLine("* 2 FETCH (INTERNALDATE NIL)").ServerLine("1 OK")
           .ClientLine("2 STATUS A (MESSAGES)").ServerLine("* STATUS A (MESSAGES NIL)").ServerLine("2 OK").ClientLine("3 SELECT B").ServerLine("3 OK"),
       [&](C& c, R&) {
         EXPECT_EQ(c.Select(u"A"), rc::kOk);
         EXPECT_EQ(fetch1(c), rc::kImap4Malformed);
         EXPECT_TRUE(c.result().fetch.empty());
         EXPECT_EQ(c.Status(u"A", kImap4StatusMessages), rc::kImap4Malformed);
         const Result r = c.Select(u"B");
         EXPECT_FALSE(c.mailbox().uid_next || c.mailbox().exists);  // nothing of A left
         return r;
       },
       rc::kOk},
      {"LIST attributes, NIL separator, 8-bit bytes in a name",
       Script(kGreeted).ClientLine("0 LIST \"\" %").ServerLine("* LIST (\\Marked \\HasNoChildren) NIL Entw&APw-rfe")
           .ServerLine("* LIST (\\Noselect) \"/\" \"Caf\xe9\"").ServerLine("0 OK"),
       [](C& c, R&) {
         const Result r = c.List(u"", u"%");
         const auto& list = c.result().list;
         EXPECT_EQ(list.at(0).attributes, kImap4AttrMarked | kImap4AttrHasNoChildren);
         EXPECT_TRUE(list[0].separator.empty() && list[0].name == u"Entw\u00fcrfe" && list[0].name_valid);
         EXPECT_TRUE(list.at(1).raw == "Caf\xe9" && !list[1].name_valid);
         return r;
       },
       rc::kOk},
      {"pipelined FETCHes answered in order, finished out of order, to the listener",
       Script(kGreeted).ClientLine("0 UID FETCH 10 UID").ClientLine("1 UID FETCH 11 UID")
           .ServerLine("* 1 FETCH (UID 10)").ServerLine("0 OK").ServerLine("* 2 FETCH (UID 11)").ServerLine("1 OK"),
       [](C& c, R& r) {
         c.SetFetchListener(&r);
         std::string t0, t1;
         EXPECT_EQ(c.BeginFetch(10, 10, "UID", true, &t0), rc::kOk);
         EXPECT_EQ(c.BeginFetch(11, 11, "UID", true, &t1), rc::kOk);
         EXPECT_EQ(c.Finish(t1), rc::kOk);
         EXPECT_EQ(c.Finish(t0), rc::kOk);
         EXPECT_EQ(r.fetched, (std::vector<std::string>{"0:10", "1:11"}));
         return c.Finish(t0);
       },
       rc::kImap4NoAnswer},
      {"the server closes between a literal and its line",
       Script(kGreeted).ClientLine("0 FETCH 1 BODY.PEEK[HEADER]").Server("* 1 FETCH (BODY[] {3}\r\nabc").Close(),
       [&](C& c, R&) { return fetch1(c); }, rc::kSockClosed, false},
  };
  for (Row& row : rows) {
    SCOPED_TRACE(row.name);
    ScriptedNetwork net(row.script);
    CImap4Client c;
    Recorder r;
    c.SetNetwork(&net);
    c.AddLineListener(&r);
    ASSERT_EQ(c.Connect("imap.test", 143), rc::kOk);
    EXPECT_EQ(row.run(c, r), row.want);
    EXPECT_EQ(net.Mismatch(), "");
    EXPECT_TRUE(net.Finished());
    EXPECT_EQ(c.connected(), row.stays_connected);
  }
}

TEST(Imap4ClientTest, Greetings) {
  const std::pair<const char*, Result> greetings[] = {
      {"* PREAUTH [CAPABILITY IMAP4rev1] welcome", rc::kOk}, {"* BYE busy", rc::kImap4Bad},
      {"* NO go away", rc::kImap4No}, {"garbage", rc::kImap4Malformed}, {"0 OK early", rc::kImap4UnknownTag}};
  for (const auto& [line, want] : greetings) {
    ScriptedNetwork net(Script().ServerLine(line));
    CImap4Client c;
    c.SetNetwork(&net);
    EXPECT_EQ(c.Connect("imap.test", 143), want) << line;
    EXPECT_EQ(c.authenticated(), want == rc::kOk) << line;
    EXPECT_EQ(c.lastReply(), want == rc::kOk ? "" : line) << line;
  }
}

}  // namespace
}  // namespace trv
