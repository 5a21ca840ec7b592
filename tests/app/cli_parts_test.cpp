// The command line's pieces without a process: argument parsing, keys and
// the listing; and below it the record a message gets when it is stored or
// repaired, and importing mbox input into a folder file.
#include <gtest/gtest.h>

#include <cmath>

#include "app/cli/args.h"
#include "app/cli/cli.h"
#include "app/cli/listing.h"
#include "base/date_value.h"
#include "base/log_sink.h"
#include "core/message_import.h"
#include "store/folder_file.h"
#include "tests/app/json_value.h"
#include "tests/support/temp_dir.h"

namespace trv::cli {
namespace {

// A new folder file in a temporary directory, committing without syncing.
struct ScratchFolder {
  static FolderFileOptions Options() {
    FolderFileOptions options;
    options.sync_commits = false;
    return options;
  }
  ScratchFolder() { EXPECT_TRUE(file.Create(dir / "f.fld").ok()); }

  test::TempDir dir;
  NullLogSink log;
  FolderFile file{log, Options()};
};

// Positional arguments joined by " ", then each option as " name=value".
std::string Describe(const ParsedArgs& parsed) {
  std::string out;
  for (const std::string& a : parsed.positional) out += (out.empty() ? "" : " ") + a;
  for (const auto& [name, value] : parsed.options) out += " " + name + "=" + value;
  return out;
}

TEST(ArgsTest, Table) {
  const ArgOptions accepted{{"--purge", "--raw"}, {"--eml"}, {}};
  struct Row { const char* name; std::vector<std::string> args; const char* parsed; };  // null: refused
  const Row rows[] = {
      {"flags anywhere", {"a", "--purge", "b"}, "a b --purge="},
      {"value as next argument", {"--eml", "dir", "x"}, "x --eml=dir"},
      {"value after =", {"--eml=dir"}, " --eml=dir"},
      {"value may start with a dash", {"--eml", "-d"}, " --eml=-d"},
      {"dash alone is standard input", {"-", "--raw"}, "- --raw="},
      {"double dash ends options", {"--", "--purge", "-x"}, "--purge -x"},
      {"value missing", {"--eml"}, nullptr},
      {"flag given a value", {"--purge=1"}, nullptr},
  };
  for (const Row& row : rows) {
    ParsedArgs parsed;
    std::string error;
    EXPECT_EQ(ParseArgs(row.args, accepted, &parsed, &error), row.parsed != nullptr) << row.name << ": " << error;
    EXPECT_EQ(row.parsed ? Describe(parsed) : std::string("refused"), row.parsed ? row.parsed : "refused") << row.name;
    EXPECT_EQ(error.empty(), row.parsed != nullptr) << row.name;
  }
}

TEST(ArgsTest, LoggedCommandLineMasksPasswords) {
  EXPECT_EQ(LoggedCommandLine({"--json", "list", "Local Folders/Inbox"}), "trvmail-cli --json list Local Folders/Inbox");
  EXPECT_EQ(LoggedCommandLine({"account", "add", "--socks-password", "s3cret", "--socks-user", "u"}),
            "trvmail-cli account add --socks-password ******** --socks-user u");
  EXPECT_EQ(LoggedCommandLine({"--password=s3cret", "x"}), "trvmail-cli --password=******** x");
}

// The listing comes from the index records alone, in pieces, as valid JSON.
TEST(ListingTest, JsonFromTheIndexAlone) {
  ScratchFolder folder;
  FolderFile& file = folder.file;
  std::vector<NewMessage> batch(3000);  // enough to be handed out in several pieces
  for (NewMessage& m : batch) m = {MessageRecord(), "Subject: x\r\n\r\n"};
  batch[0].record.from = u"Zo\u00eb \"Z\" <z@x.org>";
  batch[0].record.subject = u"tab\there\u2603";
  ASSERT_TRUE(file.AppendMany(batch, nullptr).ok());
  file.Close();
  ASSERT_TRUE(file.Open(folder.dir / "f.fld").ok());
  const ContainerCounters before = file.counters();
  ASSERT_TRUE(file.LoadIndex().ok());
  std::string streamed;
  size_t pieces = 0;
  WriteListingJson(file, [&](std::string_view piece) {
    ++pieces;
    streamed.append(piece);
  });
  EXPECT_EQ(file.counters().streams_opened - before.streams_opened, 1u);  // "/Index", no message
  EXPECT_GT(pieces, 1u);
  const test::JsonList v = test::Json(streamed);
  ASSERT_EQ(v.size(), 3000u);
  EXPECT_EQ(v[0]["from"].text, "Zo\u00eb \"Z\" <z@x.org>");
  EXPECT_EQ(v[0]["subject"].text, "tab\there\u2603");
  EXPECT_EQ(v[2999]["key"].text, "00000BB8");
  EXPECT_EQ(v[2999]["date"].type, test::JsonValue::kNull);
}

double Civil(int y, int mo, int d, int h, int mi, int s) { return DateFromCivil({y, mo, d, h, mi, s}); }

bool Near(double a, double b) { return std::fabs(a - b) < 1.0 / 86400.0; }

// The header parsing itself is the mime layer's; here what the record takes
// from it, and how undeclared 8-bit text and a missing header are read.
TEST(RecordFromMessageTest, ListingFields) {
  struct Row { const char* name; std::string head; std::u16string subject, from, to, cc, message_id; };
  const Row rows[] = {
      {"raw UTF-8 and Latin-1 in the header", "Subject: Gr\xC3\xBC\xC3\x9F" "e \xE9t\xE9\r\n\r\n", u"Grüße été", u"",
       u"", u"", u""},
      {"names and several fields", "From: \"Doe, Jane\" <jane@x.org>\r\nTo: a@x, =?UTF-8?Q?J=C3=B6rg?= <j@x>\r\n"
       "To: c@x\r\nCC: Team: d@x, e@x;\r\nMessage-ID: (note) <abc.1@host>\r\n\r\n",
       u"", u"\"Doe, Jane\" <jane@x.org>", u"a@x, Jörg <j@x>, c@x", u"d@x, e@x", u"abc.1@host"},
      {"fields after the header are body", "Subject: a\r\n\r\nFrom: not@header\r\n", u"a", u"", u"", u"", u""},
      {"no header", "\r\nSubject: body\r\n", u"", u"", u"", u"", u""},
  };
  for (const Row& row : rows) {
    const MessageRecord r = RecordFromMessage(row.head);
    EXPECT_EQ(std::tie(r.subject, r.from, r.to, r.cc, r.message_id),
              std::tie(row.subject, row.from, row.to, row.cc, row.message_id)) << row.name;
    EXPECT_EQ(r.size, row.head.size()) << row.name;
    EXPECT_EQ(r.key, 0u) << row.name;
  }
}

TEST(RecordFromMessageTest, PriorityAndUnsentFlags) {
  const std::pair<const char*, uint32_t> rows[] = {
      {"X-Priority: 2\r\n\r\n", msgflag::kPriorityHigh},
      {"x-priority: 5\r\nx-unsent:  1 \r\n\r\n", msgflag::kPriorityLow | msgflag::kUnsent},
      {"Content-Type: multipart/mixed; boundary=b\r\n\r\n", msgflag::kHasAttachments},
      {"X-Priority: urgent\r\nX-Unsent: 0\r\n\r\n", 0},
  };
  for (const auto& [head, flags] : rows) EXPECT_EQ(RecordFromMessage(head).flags, flags) << head;
  // Flags other than these stay; these follow the header.
  MessageRecord r;
  r.flags = msgflag::kRead | msgflag::kPriorityHigh | msgflag::kUnsent | msgflag::kHasAttachments;
  FillRecordFromHead("X-Priority: 3\r\n\r\n", &r);
  EXPECT_EQ(r.flags, msgflag::kRead);
}

// The repair made the record with the stream's time and a marked sent date;
// key and size are never changed.
TEST(RebuildRecordTest, FillsFromTheHeadAndKeepsTheStreamTime) {
  const double stream = Civil(2023, 1, 2, 3, 4, 5), marked = Civil(2000, 1, 1, 0, 0, 0);
  const double received = Civil(2024, 3, 5, 7, 0, 0);
  struct Row { const char* name; std::string head; std::u16string subject, from; double sent, received; uint32_t flags; };
  const Row rows[] = {
      {"no Received field: the stream's time stays",
       "Subject: back\r\nFrom: a@b\r\nDate: Mon, 4 Mar 2024 10:00:00 +0000\r\n\r\nbody", u"back", u"a@b",
       Civil(2024, 3, 4, 10, 0, 0), stream, 0},
      {"no dates at all: the stream's time for both", "Subject: x\r\n\r\n", u"x", u"", stream, stream, 0},
      {"no Date: sent when received", "Received: x; Tue, 5 Mar 2024 07:00:00 +0000\r\n\r\n", u"", u"", received,
       received, 0},
      {"nothing to read: the record stays", "\r\nbody only\r\n", u"", u"", marked, stream,
       msgflag::kNeedsHeaderRefresh},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    MessageRecord r;
    r.key = 7;
    r.size = 999;
    r.sent_date = marked;
    r.received_date = stream;
    r.flags = msgflag::kNeedsHeaderRefresh;
    RebuildRecordFromHead(row.head, &r);
    EXPECT_EQ(r.subject, row.subject);
    EXPECT_EQ(r.from, row.from);
    EXPECT_EQ(std::make_pair(r.key, r.size), std::make_pair(7u, 999u));
    EXPECT_TRUE(Near(r.sent_date, row.sent)) << r.sent_date;
    EXPECT_TRUE(Near(r.received_date, row.received)) << r.received_date;
    EXPECT_EQ(r.flags, row.flags);
  }
}

// An mbox with odd entries through the importer into a folder file: what is
// said about each, and the records the listing shows.
TEST(ImportMailInputTest, MboxWithOddEntriesIntoAFolderFile) {
  const std::string mbox =
      "From a@b Mon Mar  4 10:00:00 2024\n"  // 1
      "Subject: first\nStatus: RO\n\nbody\n\n"
      "From \n"                              // 7: broken, still a separator
      "Subject : second\n\n"                 // blanks before the colon
      "From c@d Tue Mar  5 10:00:00 2024\n"  // 10: no text
      "\n"
      "From e@f Wed Mar  6 10:00:00 2024\n"  // 12
      "Just text without any header\n";
  ScratchFolder folder;
  FolderFile& file = folder.file;
  MessageImporter importer(file);
  size_t pos = 0;
  LineSource source([&](char* buf, size_t size, size_t* got) {
    *got = std::min<size_t>({size, mbox.size() - pos, 5});  // in small blocks
    std::copy_n(mbox.data() + pos, *got, buf);
    pos += *got;
    return rc::kOk;
  });
  std::vector<std::pair<ImportEvent, uint64_t>> events;
  InputKind kind = InputKind::kNotMail;
  ASSERT_TRUE(ImportMailInput(source, importer, &kind, [&](ImportEvent e, const MboxMessage* m) {
                events.emplace_back(e, m ? m->line : 0);
              }).ok());
  ASSERT_TRUE(importer.Flush().ok());
  EXPECT_EQ(kind, InputKind::kMbox);
  using E = ImportEvent;
  const std::vector<std::pair<ImportEvent, uint64_t>> said = {
      {E::kStored, 1}, {E::kBrokenEnvelope, 7}, {E::kStored, 7}, {E::kEmptyEntry, 10}, {E::kNoHeader, 12},
      {E::kStored, 12}};
  EXPECT_EQ(events, said);
  EXPECT_EQ(importer.stored(), 3u);

  const std::vector<MessageRecord> records = file.Messages();
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[1].subject, u"second");
  std::string text;
  ASSERT_TRUE(file.ReadMessage(records[2].key, &text).ok());
  EXPECT_EQ(text, "\r\nJust text without any header\r\n");
}

}  // namespace
}  // namespace trv::cli
