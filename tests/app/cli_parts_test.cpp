// The command line's pieces without a process: argument parsing, keys,
// tables, telling mail from other files, the stored form, mbox reading and
// writing, and the listing's JSON.
#include <gtest/gtest.h>

#include "app/cli/args.h"
#include "app/cli/cli.h"
#include "app/cli/line_source.h"
#include "app/cli/listing.h"
#include "app/cli/mbox.h"
#include "app/cli/message_text.h"
#include "app/cli/text_table.h"
#include "base/date_value.h"
#include "tests/app/json_value.h"
#include "tests/support/temp_dir.h"

namespace trv::cli {
namespace {

// ---- arguments and keys ----

TEST(ArgsTest, Table) {
  const ArgOptions accepted{{"--purge", "--raw"}, {"--eml"}};
  struct Row {
    const char* name;
    std::vector<std::string> args;
    bool ok;
    std::vector<std::string> positional;
    std::map<std::string, std::string> options;
  };
  const Row rows[] = {
      {"positional only", {"a", "b"}, true, {"a", "b"}, {}},
      {"flags anywhere", {"a", "--purge", "b"}, true, {"a", "b"}, {{"--purge", ""}}},
      {"value as next argument", {"--eml", "dir", "x"}, true, {"x"}, {{"--eml", "dir"}}},
      {"value after =", {"--eml=dir"}, true, {}, {{"--eml", "dir"}}},
      {"value may start with a dash", {"--eml", "-d"}, true, {}, {{"--eml", "-d"}}},
      {"dash alone is standard input", {"-", "--raw"}, true, {"-"}, {{"--raw", ""}}},
      {"double dash ends options", {"--", "--purge", "-x"}, true, {"--purge", "-x"}, {}},
      {"unknown option", {"--nope"}, false, {}, {}},
      {"value missing", {"--eml"}, false, {}, {}},
      {"flag given a value", {"--purge=1"}, false, {}, {}},
      {"given twice", {"--raw", "--raw"}, false, {}, {}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    ParsedArgs parsed;
    std::string error;
    EXPECT_EQ(ParseArgs(row.args, accepted, &parsed, &error), row.ok) << error;
    if (!row.ok) {
      EXPECT_FALSE(error.empty());
      continue;
    }
    EXPECT_EQ(parsed.positional, row.positional);
    EXPECT_EQ(parsed.options, row.options);
  }
}

TEST(ArgsTest, LoggedCommandLineMasksPasswords) {
  EXPECT_EQ(LoggedCommandLine({"--json", "list", "Local Folders/Inbox"}), "trvmail-cli --json list Local Folders/Inbox");
  EXPECT_EQ(LoggedCommandLine({"account", "add", "--socks-password", "s3cret", "--socks-user", "u"}),
            "trvmail-cli account add --socks-password ******** --socks-user u");
  EXPECT_EQ(LoggedCommandLine({"--password=s3cret", "x"}), "trvmail-cli --password=******** x");
  EXPECT_EQ(LoggedCommandLine({"--password-stdin", "--name", "n"}), "trvmail-cli --password-stdin --name n");
}

TEST(KeysTest, ParseAndFormat) {
  struct Row {
    const char* text;
    bool ok;
    uint32_t key;
  };
  const Row rows[] = {
      {"0000001A", true, 0x1A}, {"1a", true, 0x1A},         {"FFFFFFFF", true, 0xFFFFFFFF},
      {"00000000", false, 0},   {"0", false, 0},            {"", false, 0},
      {"123456789", false, 0},  {"12G", false, 0},          {"-1", false, 0},
      {" 1", false, 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    uint32_t key = 0;
    EXPECT_EQ(ParseKey(row.text, &key), row.ok);
    if (row.ok) {
      EXPECT_EQ(key, row.key);
    }
  }
  EXPECT_EQ(KeyText(0x1A), "0000001A");
  EXPECT_EQ(KeyText(0xDEADBEEF), "DEADBEEF");

  std::vector<uint32_t> keys;
  std::string error;
  ASSERT_TRUE(ParseKeys({"2", "1", "02"}, &keys, &error));
  EXPECT_EQ(keys, (std::vector<uint32_t>{2, 1}));  // a repeated key counts once, order kept
  EXPECT_FALSE(ParseKeys({"1", "zz"}, &keys, &error));
  EXPECT_NE(error.find("\"zz\""), std::string::npos);
}

TEST(TextTableTest, AlignsByCharactersAndKeepsRowsOnOneLine) {
  TextTable table({"NAME", "N"}, {TextTable::kLeft, TextTable::kRight});
  table.AddRow({"Grüße", "7"});
  table.AddRow({"a\tb\nc", "1234"});
  table.AddRow({"x"});
  EXPECT_EQ(table.Render(),
            "NAME      N\n"
            "Grüße     7\n"
            "a b c  1234\n"
            "x\n");
}

// ---- telling mail from other files ----

TEST(ClassifyInputTest, Table) {
  struct Row {
    const char* name;
    std::string head;
    InputKind kind;
  };
  const Row rows[] = {
      {"mbox", "From a@b Mon Mar  4 10:00:00 2024\nSubject: x\n", InputKind::kMbox},
      {"mbox with a broken first line", "From \nSubject: x\n", InputKind::kMbox},
      {"message", "Subject: hi\nFrom: a@b\n\nbody\n", InputKind::kMessage},
      {"message with CR LF and folding", "Received: from x\r\n\tby y; Mon, 4 Mar 2024\r\nTo: b@c\r\n\r\n",
       InputKind::kMessage},
      {"known field in any case", "message-id: <1@x>\n\n", InputKind::kMessage},
      {"unknown fields only", "X-Thing: 1\nFoo: 2\n\nbody\n", InputKind::kNotMail},
      {"plain text", "Dear diary,\ntoday: nothing\n", InputKind::kNotMail},
      {"empty", "", InputKind::kNotMail},
      {"blank first line", "\nSubject: x\n", InputKind::kNotMail},
      {"field name with a blank", "Sub ject: x\nFrom: a@b\n", InputKind::kNotMail},
      {"NUL in the header", std::string("Subject: a\0b\nFrom: a@b\n", 24), InputKind::kNotMail},
      {"NUL only in the body", std::string("Subject: a\n\nb\0c", 15), InputKind::kMessage},
      {"more junk than fields", "Subject: a\njunk\nmore junk\n", InputKind::kNotMail},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(ClassifyInput(row.head), row.kind);
  }
}

TEST(StoredFormTest, Table) {
  struct Row {
    const char* name;
    std::string in;
    std::string stored;
  };
  const Row rows[] = {
      {"bare LF", "Subject: a\n\nb\n", "Subject: a\r\n\r\nb\r\n"},
      {"CR LF kept", "Subject: a\r\n\r\nb\r\n", "Subject: a\r\n\r\nb\r\n"},
      {"bare CR", "Subject: a\r\rb\r\n", "Subject: a\r\n\r\nb\r\n"},
      {"line end added", "Subject: a\n\nb", "Subject: a\r\n\r\nb\r\n"},
      {"empty header kept", "\nbody\n", "\r\nbody\r\n"},
      {"no header gets an empty one", "Just text\nFrom: me\n", "\r\nJust text\r\nFrom: me\r\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(ToStoredForm(row.in), row.stored);
  }
  EXPECT_EQ(HeaderStateOf("Subject: a\r\n"), HeaderState::kHeader);
  EXPECT_EQ(HeaderStateOf("\r\nbody"), HeaderState::kEmptyHeader);
  EXPECT_EQ(HeaderStateOf("body text\r\n"), HeaderState::kNoHeader);
}

TEST(StoredFormTest, RawHeaderValue) {
  const std::string text = "Subject: a\r\nstatus:  RO \r\n\r\nStatus: body\r\n";
  EXPECT_EQ(RawHeaderValue(text, "Status"), "RO");
  EXPECT_EQ(RawHeaderValue(text, "X-Missing"), "");
  EXPECT_EQ(RawHeaderValue("\r\nStatus: R\r\n", "Status"), "");  // the body is not the header
}

// ---- mbox ----

struct Split {
  std::string text;
  uint64_t line;
  bool broken;
  friend bool operator==(const Split&, const Split&) = default;
};

std::ostream& operator<<(std::ostream& os, const Split& s) {
  return os << "{line " << s.line << (s.broken ? " broken" : "") << ": \"" << s.text << "\"}";
}

// Splits `mbox` read in blocks of `block` bytes.
std::vector<Split> SplitMbox(const std::string& mbox, size_t block) {
  size_t pos = 0;
  LineSource source(
      [&](char* buf, size_t size, size_t* got) {
        *got = std::min(size, mbox.size() - pos);
        std::copy_n(mbox.data() + pos, *got, buf);
        pos += *got;
        return rc::kOk;
      },
      block);
  MboxReader reader(source);
  std::vector<Split> out;
  MboxMessage m;
  bool got = false;
  while (reader.Next(&m, &got).ok() && got) out.push_back({m.text, m.line, m.broken_envelope});
  return out;
}

TEST(MboxReaderTest, SplitsAtFromLinesAfterEmptyLines) {
  const std::string env = "From a@b Mon Mar  4 10:00:00 2024\n";
  struct Row {
    const char* name;
    std::string mbox;
    std::vector<Split> messages;
  };
  const Row rows[] = {
      {"two messages; the separating empty line is dropped",
       env + "S: 1\n\nb1\n\n" + env + "S: 2\n\nb2\n\n",
       {{"S: 1\n\nb1\n", 1, false}, {"S: 2\n\nb2\n", 6, false}}},
      {"From inside a paragraph does not split", env + "S: 1\n\nline\nFrom here\n",
       {{"S: 1\n\nline\nFrom here\n", 1, false}}},
      {"quoted From lines lose one >", env + "S: 1\n\n>From a\n>>From b\n>Fromage\n",
       {{"S: 1\n\nFrom a\n>From b\n>Fromage\n", 1, false}}},
      {"empty lines at a message's end are kept but the last", env + "S: 1\n\nb\n\n\n\n" + env + "S: 2\n",
       {{"S: 1\n\nb\n\n\n", 1, false}, {"S: 2\n", 8, false}}},
      {"CR LF file", "From a@b Mon Mar  4 10:00:00 2024\r\nS: 1\r\n\r\nb\r\n\r\nFrom c@d Tue Mar  5 1:02:03 2024\r\nS: 2\r\n",
       {{"S: 1\r\n\r\nb\r\n", 1, false}, {"S: 2\r\n", 6, false}}},
      {"last line without line end", env + "S: 1\n\nend", {{"S: 1\n\nend\n", 1, false}}},
      {"broken From line still splits", env + "S: 1\n\nFrom here on\nS: 2\n",
       {{"S: 1\n", 1, false}, {"S: 2\n", 4, true}}},
      {"empty entries", env + "\n" + env + "S: 2\n", {{"", 1, false}, {"S: 2\n", 3, false}}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(SplitMbox(row.mbox, LineSource::kBlock), row.messages);
    // The same whatever the size of the blocks the input arrives in.
    for (size_t block : {1, 2, 3, 5, 7, 64}) {
      SCOPED_TRACE(block);
      EXPECT_EQ(SplitMbox(row.mbox, block), row.messages);
    }
  }
}

TEST(MboxReaderTest, EnvelopeCheck) {
  struct Row {
    const char* line;
    bool ok;
  };
  const Row rows[] = {
      {"From a@b Mon Mar  4 10:00:00 2024", true},
      {"From a@b Mon Mar 4 1:00 2024\r\n", true},
      {"From - Sat Jan  3 01:05:34 1996", true},
      {"From MAILER-DAEMON Thu Jan  1 00:00:00 1970 +0000", true},
      {"From ", false},
      {"From a@b", false},
      {"From a@b yesterday", false},
      {"From here on we go", false},
      {"From a@b 10:00", false},
      {"From a@b 2024", false},
      {"Subject: x", false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.line);
    EXPECT_EQ(IsWellFormedEnvelope(row.line), row.ok);
  }
}

TEST(MboxWriterTest, EnvelopeLine) {
  const double date = DateFromCivil({2024, 3, 4, 10, 0, 7});
  EXPECT_EQ(MboxEnvelope("a@b.org", date), "From a@b.org Mon Mar  4 10:00:07 2024\n");
  EXPECT_EQ(MboxEnvelope("", date), "From MAILER-DAEMON Mon Mar  4 10:00:07 2024\n");
  EXPECT_EQ(MboxEnvelope("a b@c", date), "From MAILER-DAEMON Mon Mar  4 10:00:07 2024\n");
  EXPECT_TRUE(IsWellFormedEnvelope(MboxEnvelope("x@y", kNoDate)));
}

TEST(MboxWriterTest, EntriesReadBackToTheSameStoredBytes) {
  const std::vector<std::string> stored = {
      "Subject: plain\r\n\r\nbody\r\n",
      "Subject: from lines\r\n\r\nFrom the start\r\n\r\nFrom after a blank\r\n>From quoted\r\n>>From twice\r\n",
      "Subject: blank lines at the end\r\n\r\nb\r\n\r\n\r\n",
      "Subject: empty body\r\n\r\n",
      "\r\nno header at all\r\n",
      "Subject: last line ends the message\r\n\r\nFrom \r\n",
  };
  std::string mbox;
  for (const std::string& s : stored) {
    mbox += MboxEnvelope("a@b", kNoDate);
    AppendMboxEntry(s, &mbox);
  }
  const std::vector<Split> back = SplitMbox(mbox, 3);
  ASSERT_EQ(back.size(), stored.size());
  for (size_t i = 0; i < stored.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_FALSE(back[i].broken);
    EXPECT_EQ(ToStoredForm(back[i].text), stored[i]);
  }
}

// ---- the listing ----

// The listing comes from the index records alone, in pieces, as valid JSON.
TEST(ListingTest, JsonFromAFolderFile) {
  test::TempDir dir;
  NullLogSink log;
  FolderFileOptions options;
  options.sync_commits = false;
  FolderFile file(log, options);
  ASSERT_TRUE(file.Create(dir / "f.fld").ok());
  std::string streamed;
  const auto collect = [&streamed](std::string_view piece) { streamed.append(piece); };
  WriteListingJson(file, collect);
  EXPECT_EQ(streamed, "[]\n");

  // Enough records to be handed out in several pieces.
  std::vector<NewMessage> batch(3000);
  const std::string text = "Subject: x\r\n\r\n";
  for (NewMessage& m : batch) m = {MessageRecord(), text};
  batch[0].record.sent_date = DateFromCivil({2024, 3, 4, 10, 0, 7});
  batch[0].record.from = u"Zoë \"Z\" <z@x.org>";
  batch[0].record.subject = u"tab\there\u2603";
  batch[0].record.flags = msgflag::kRead | msgflag::kPartial;
  ASSERT_TRUE(file.AppendMany(batch, nullptr).ok());
  streamed.clear();
  size_t pieces = 0;
  WriteListingJson(file, [&](std::string_view piece) {
    ++pieces;
    collect(piece);
  });
  EXPECT_GT(pieces, 1u);
  const test::JsonValue v = test::Json(streamed);
  ASSERT_EQ(v.size(), 3000u);
  EXPECT_EQ(v[0].member_order, (std::vector<std::string>{"key", "date", "from", "subject", "size", "read", "partial"}));
  EXPECT_EQ(v[0]["key"].text, "00000001");
  EXPECT_EQ(v[0]["date"].text, "2024-03-04T10:00:07Z");
  EXPECT_EQ(v[0]["from"].text, "Zoë \"Z\" <z@x.org>");
  EXPECT_EQ(v[0]["subject"].text, "tab\there\u2603");
  EXPECT_EQ(v[0]["size"].number, text.size());
  EXPECT_TRUE(v[0]["read"].boolean);
  EXPECT_TRUE(v[0]["partial"].boolean);
  EXPECT_EQ(v[2999]["key"].text, "00000BB8");
  EXPECT_EQ(v[2999]["date"].type, test::JsonValue::kNull);
  EXPECT_FALSE(v[2999]["read"].boolean);
  EXPECT_EQ(IsoDateUtc(DateFromCivil({1999, 12, 31, 23, 59, 59})), "1999-12-31T23:59:59Z");

  // Listing a folder opened afresh reads its index and no message.
  file.Close();
  ASSERT_TRUE(file.Open(dir / "f.fld").ok());
  const ContainerCounters before = file.counters();
  ASSERT_TRUE(file.LoadIndex().ok());
  WriteListingJson(file, [](std::string_view) {});
  EXPECT_EQ(file.counters().streams_opened - before.streams_opened, 1u);  // "/Index"
}

}  // namespace
}  // namespace trv::cli
