// trvmail-cli run as a child process: command-line errors, the storage
// commands, bad input, the single-instance lock and repairs.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <set>
#include <thread>

#include "core/instance_lock.h"
#include "store/container.h"
#include "store/folder_file.h"
#include "store/storage_index_file.h"
#include "tests/app/cli_runner.h"

namespace trv::test {
namespace {

constexpr const char* kInbox = "Local Folders/Inbox";

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }
std::string Num(int i) { return std::to_string(i); }

class CliTest : public CliTestBase {
 protected:
  std::filesystem::path File(const std::string& name, const std::string& bytes) {
    const std::filesystem::path p = box_.root() / name;
    WriteFile(p, bytes);
    return p;
  }
  // The folder file of a folder of "Local Folders", from the storage index.
  std::filesystem::path FolderFilePath(const std::string& folder) {
    StorageIndex index;
    std::optional<IndexDamage> damage;
    const std::string bytes = ReadFile(box_.data_dir() / "{00000000-0000-0000-0000-000000000000}.idx");
    EXPECT_TRUE(ParseStorageIndex(bytes, &index, &damage).ok());
    const std::string name = folder.substr(folder.rfind('/') + 1);
    for (const FolderRecord& r : index.children) {
      if (WideToUtf8(r.name) == name) return box_.data_dir() / WideToPath(r.file_name);
    }
    ADD_FAILURE() << "no folder " << folder;
    return {};
  }
  // Runs that fail with `status`, standard error saying `says`.
  struct Failure {
    const char* name;
    std::vector<std::string> args;
    const char* says;
  };
  void ExpectFailures(const std::vector<Failure>& rows, int status) {
    for (const Failure& row : rows) {
      const CliRun run = Run(row.args);
      EXPECT_EQ(run.status, status) << row.name;
      EXPECT_TRUE(Has(run.err, row.says)) << row.name << ": " << run.err;
      if (status == 2) {  // a usage error: the usage, and nothing else
        EXPECT_TRUE(Has(run.err, "usage: trvmail-cli")) << row.name << ": " << run.err;
        EXPECT_EQ(run.out, "") << row.name;
      }
    }
  }
};

TEST_F(CliTest, CommandLineErrorsExitWithTwoAndTouchNothing) {
  ExpectFailures({
      {"no command", {}, "no command given"},
      {"unknown command", {"frobnicate"}, "unknown command frobnicate"},
      {"unknown global option", {"--verbose", "storages"}, "unknown option --verbose"},
      {"data dir without value", {"--data-dir"}, "--data-dir needs a value"},
      {"unknown command option", {"list", kInbox, "--all"}, "unknown option --all"},
      {"too few", {"list"}, "too few arguments"},
      {"too many", {"mkdir", "a", "b"}, "too many arguments"},
      {"bad key", {"show", kInbox, "xyz"}, "not a message key: \"xyz\""},
      {"two show modes", {"show", kInbox, "1", "--raw", "--html"}, "exclude each other"},
      {"mark without state", {"mark", kInbox, "1", "2"}, "\"read\" or \"unread\""},
      {"export without target", {"export", kInbox}, "one of --eml DIR and --mbox FILE"},
      {"data dir twice", {"--data-dir", "a", "storages", "--data-dir", "b"}, "--data-dir given twice"},
  }, 2);
  EXPECT_FALSE(std::filesystem::exists(box_.data_dir()));
  EXPECT_FALSE(std::filesystem::exists(box_.root() / "config/Tarvo/Mail2.ini"));

  const CliRun help = Ok({"--help"});
  EXPECT_TRUE(Has(help.out, "export PATH [KEY...] (--eml DIR | --mbox FILE)"));
}

TEST_F(CliTest, StoragesAndFoldersInBothForms) {
  // The first run resolves the data directory like the mail program and
  // records it; --data-dir uses another one and records nothing.
  const JsonValue storages = Json(Ok({"--json", "storages"}).out);
  ASSERT_EQ(storages.size(), 1u);
  EXPECT_EQ(storages[0].member_order, (std::vector<std::string>{"name", "id", "index"}));
  EXPECT_EQ(storages[0]["name"].text, "Local Folders");
  EXPECT_EQ(storages[0]["id"].text, "{00000000-0000-0000-0000-000000000000}");
  EXPECT_EQ(storages[0]["index"].text, (box_.data_dir() / "{00000000-0000-0000-0000-000000000000}.idx").string());
  EXPECT_TRUE(Has(ReadFile(box_.root() / "config/Tarvo/Mail2.ini"), "TarvoMail"));
  EXPECT_TRUE(Has(ReadFile(box_.data_dir() / "TarvoMail.log"), "trvmail-cli --json storages"));

  const std::string other = (box_.root() / "other").string();
  const CliRun text = Ok({"--data-dir", other, "storages"});
  EXPECT_TRUE(Has(text.out, "NAME           ID                                      INDEX"));
  EXPECT_TRUE(Has(text.out, other + "/{00000000-0000-0000-0000-000000000000}.idx"));
  EXPECT_TRUE(std::filesystem::exists(std::filesystem::path(other) / "Settings.ini"));

  Ok({"import", kInbox, File("one.eml", "Subject: a\nFrom: x@y\n\nbody\n")});
  Ok({"mkdir", "Local Folders/Work"});
  const JsonValue folders = Json(Ok({"folders", "--json", "local folders"}).out);
  ASSERT_EQ(folders.size(), 6u);
  for (size_t i = 0; i < 6; ++i) {
    const std::string name = i < 5 ? std::vector<std::string>{"Inbox", "Outbox", "Sent", "Deleted", "Drafts"}[i] : "Work";
    EXPECT_EQ(folders[i]["path"].text, "Local Folders/" + name);
    EXPECT_EQ(folders[i]["kind"].number, i < 5 ? i + 1 : 0) << name;
    EXPECT_EQ(folders[i]["messages"].number, i == 0 ? 1 : 0) << name;
    EXPECT_EQ(folders[i]["unread"].number, i == 0 ? 1 : 0) << name;
  }
  const CliRun table = Ok({"folders"});
  EXPECT_TRUE(Has(table.out, "PATH                   KIND     MESSAGES  UNREAD\n"
                             "Local Folders/Inbox    inbox           1       1\n"));
  const CliRun missing = Run({"folders", "Nowhere"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_TRUE(Has(missing.err, "no storage \"Nowhere\": 0x80070003")) << missing.err;
}

TEST_F(CliTest, FolderTreeChanges) {
  Ok({"mkdir", "Local Folders/Projects"});
  Ok({"mkdir", "Local Folders/Projects/2024/"});
  ExpectFailures({
      {"exists, any case", {"mkdir", "local folders/projects"}, "exists already: 0x00000050"},
      {"parent missing", {"mkdir", "Local Folders/Nope/Sub"}, "no folder \"Local Folders/Nope\": 0x80070003"},
      {"storage itself", {"mkdir", "Local Folders"}, "names no folder below a storage"},
      {"special folder", {"rmdir", "Local Folders/Deleted"}, "special folders cannot be deleted"},
      {"storage root", {"rmdir", "Local Folders"}, "storages are not deleted here"},
      {"rename to a sibling's name", {"rename", "Local Folders/Projects", "inbox"}, "0x00000050"},
      {"rename with a slash", {"rename", "Local Folders/Projects", "a/b"}, "0x80070057"},
      {"rename missing", {"rename", "Local Folders/Nope", "x"}, "no folder"},
  }, 1);
  EXPECT_EQ(Ok({"rename", "Local Folders/Projects", "Archive"}).out,
            "renamed Local Folders/Projects to Local Folders/Archive\n");
  Ok({"import", "Local Folders/Archive/2024", File("m.eml", "Subject: keep me\n\nx\n")});

  // A folder holding messages (here in its subtree) is deleted only with --force.
  CliRun run = Run({"rmdir", "Local Folders/Archive"});
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(Has(run.err, "holds 1 messages")) << run.err;
  EXPECT_EQ(List("Local Folders/Archive/2024").size(), 1u);
  Ok({"rmdir", "--force", "Local Folders/Archive"});
  const CliRun folders = Ok({"folders"});
  EXPECT_FALSE(Has(folders.out, "Archive"));
  Ok({"mkdir", "Local Folders/Empty"});
  EXPECT_EQ(Ok({"rmdir", "Local Folders/Empty"}).out, "deleted Local Folders/Empty\n");
}

TEST_F(CliTest, ImportRefusesWhatIsNotMailAndKeepsTheRest) {
  const auto good = File("good.eml", "From: a@b\nSubject: good\n\nbody\n");
  const auto text = File("notes.txt", "shopping: milk\nbread\n");
  const auto binary = File("image.png", std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16));
  const auto empty = File("empty.eml", "");
  const CliRun run = Run({"import", kInbox, text.string(), good.string(), binary.string(), empty.string(),
                          (box_.root() / "missing.eml").string()});
  EXPECT_EQ(run.status, 1);
  for (const auto& bad : {text, binary, empty}) {
    EXPECT_TRUE(Has(run.err, bad.string() + " is not mail")) << run.err;
  }
  EXPECT_TRUE(Has(run.err, "nothing imported from it: 0x0000000D"));
  EXPECT_TRUE(Has(run.err, "cannot open " + (box_.root() / "missing.eml").string() + ": 0x80070002")) << run.err;
  EXPECT_EQ(run.out, good.string() + ": 1 messages imported into Local Folders/Inbox\n");
  const JsonValue list = List(kInbox);
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0]["subject"].text, "good");
}

TEST_F(CliTest, ImportSaysWhatItDecidesAboutOddMboxEntries) {
  const std::string mbox =
      "From a@b Mon Mar  4 10:00:00 2024\n"   // 1
      "Subject: first\n"                      // 2
      "Status: RO\n"                          // 3
      "\n"                                    // 4
      "body\n"                                // 5
      "\n"                                    // 6
      "From \n"                               // 7: broken, still a separator
      "Subject: second\n"                     // 8
      "\n"                                    // 9
      "From c@d Tue Mar  5 10:00:00 2024\n"   // 10: no text
      "\n"                                    // 11
      "From e@f Wed Mar  6 10:00:00 2024\n"   // 12
      "Just text without any header\n";       // 13
  const auto path = File("odd.mbox", mbox);
  const CliRun run = Ok({"import", kInbox, path.string()});
  const std::string where = path.string() + ":";
  EXPECT_TRUE(Has(run.err, where + "7: \"From \" line without sender and date (\"From \"); it starts a new message"))
      << run.err;
  EXPECT_TRUE(Has(run.err, where + "10: the entry holds no message text; skipped"));
  EXPECT_TRUE(Has(run.err, where + "12: the message has no header; stored with an empty header"));
  EXPECT_EQ(run.out, path.string() + ": 3 messages imported into Local Folders/Inbox\n");

  const JsonValue list = List(kInbox);
  ASSERT_EQ(list.size(), 3u);
  EXPECT_EQ(list[0]["subject"].text, "first");
  EXPECT_TRUE(list[0]["read"].boolean);  // "Status: RO"
  EXPECT_EQ(list[1]["subject"].text, "second");
  EXPECT_FALSE(list[1]["read"].boolean);
  EXPECT_EQ(Ok({"show", kInbox, list[2]["key"].text, "--raw"}).out, "\r\nJust text without any header\r\n");
}

TEST_F(CliTest, StandardInputAndShow) {
  const std::string message =
      "From: =?UTF-8?Q?Zo=C3=AB?= <zoe@example.org>\n"
      "To: a@example.org, b@example.org\n"
      "Subject: =?UTF-8?B?4piD?= snow\n"
      "Date: Mon, 4 Mar 2024 10:00:00 +0000\n"
      "\n"
      "line one\r\n"
      "line two\n";
  EXPECT_EQ(Ok({"import", kInbox, "-"}, message).out, "standard input: 1 messages imported into Local Folders/Inbox\n");
  const JsonValue list = List(kInbox);
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0]["from"].text, "Zoë <zoe@example.org>");
  EXPECT_EQ(list[0]["date"].text, "2024-03-04T10:00:00Z");
  const std::string key = list[0]["key"].text;

  const CliRun raw = Ok({"show", kInbox, key, "--raw"});
  std::string stored = message;
  for (size_t p = 0; (p = stored.find('\n', p)) != std::string::npos; p += 2) {
    if (p == 0 || stored[p - 1] != '\r') stored.insert(p, "\r");
    else --p;
  }
  EXPECT_EQ(raw.out, stored);
  EXPECT_EQ(list[0]["size"].number, stored.size());

  const CliRun shown = Ok({"show", kInbox, key});
  EXPECT_EQ(shown.out,
            "From: Zoë <zoe@example.org>\n"
            "To: a@example.org, b@example.org\n"
            "Subject: \u2603 snow\n"
            "Date: Mon, 4 Mar 2024 10:00:00 +0000\n"
            "\n"
            "line one\n"
            "line two\n");
  EXPECT_EQ(shown.err, "");
  EXPECT_EQ(Ok({"show", kInbox, key, "--html"}).out,
            "<HTML><HEAD></HEAD><BODY>\nline one<br>line two<br></BODY></HTML>");
  EXPECT_EQ(Ok({"show", kInbox, key, "--parts"}).out, "text/plain  20 bytes  8bit  charset=us-ascii\n");
  const CliRun absent = Run({"show", kInbox, "ABCDEF"});
  EXPECT_EQ(absent.status, 1);
  EXPECT_TRUE(Has(absent.err, "no message 00ABCDEF in \"Local Folders/Inbox\": 0x80070057")) << absent.err;
}

// Broken MIME is shown as far as it can be read; the damage is named on
// standard error and the command still succeeds.
TEST_F(CliTest, ShowReadsBrokenMessagesAsFarAsItCan) {
  const std::string message =
      "From: a@example.org\r\nSubject: broken\r\n"
      "Content-Type: multipart/mixed; boundary=b\r\n\r\n"
      "--b\r\nContent-Type: text/plain\r\n\r\nstill readable\r\n"
      "--b\r\nContent-Type: image/png\r\nContent-Transfer-Encoding: base64\r\n\r\n!!not*base64\r\n";
  Ok({"import", kInbox, "-"}, message);
  const CliRun shown = Ok({"show", kInbox, "1"});
  EXPECT_TRUE(Has(shown.out, "still readable")) << shown.out;
  EXPECT_TRUE(Has(shown.err, "Local Folders/Inbox/00000001: ")) << shown.err;
  EXPECT_TRUE(Has(shown.err, "what could be read is shown")) << shown.err;
  const CliRun parts = Ok({"show", kInbox, "1", "--parts"});
  EXPECT_TRUE(Has(parts.out, "multipart/mixed")) << parts.out;
  EXPECT_TRUE(Has(parts.out, "  image/png")) << parts.out;
}

TEST_F(CliTest, MarkRemoveAndPurge) {
  std::string mbox;
  for (int i = 1; i <= 4; ++i) {
    mbox += "From a@b Mon Mar  4 10:00:00 2024\nSubject: m" + std::to_string(i) + "\n\nbody\n\n";
  }
  Ok({"import", kInbox, File("four.mbox", mbox).string()});
  EXPECT_EQ(Ok({"mark", kInbox, "1", "2", "read"}).out, "marked 2 of 2 messages read\n");
  EXPECT_EQ(Ok({"mark", kInbox, "2", "3", "read"}).out, "marked 1 of 2 messages read\n");
  EXPECT_EQ(Ok({"mark", kInbox, "3", "unread"}).out, "marked 1 of 1 messages unread\n");
  JsonValue list = List(kInbox);
  ASSERT_EQ(list.size(), 4u);
  const bool read[] = {true, true, false, false};
  for (size_t i = 0; i < 4; ++i) EXPECT_EQ(list[i]["read"].boolean, read[i]) << i;

  // An unknown key stops the command before anything changes.
  CliRun run = Run({"rm", kInbox, "1", "99"});
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(Has(run.err, "no message 00000099"));
  EXPECT_EQ(List(kInbox).size(), 4u);

  EXPECT_EQ(Ok({"rm", kInbox, "1", "3"}).out,
            "moved 2 messages from Local Folders/Inbox to Local Folders/Deleted\n");
  EXPECT_EQ(List(kInbox).size(), 2u);
  list = List("Local Folders/Deleted");
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0]["subject"].text, "m1");
  EXPECT_TRUE(list[0]["read"].boolean);  // moving keeps the marks
  EXPECT_EQ(Ok({"rm", "Local Folders/Deleted", list[0]["key"].text}).out,
            "deleted 1 messages from Local Folders/Deleted for good\n");
  EXPECT_EQ(List("Local Folders/Deleted").size(), 1u);
  Ok({"rm", "--purge", kInbox, "2"});
  EXPECT_EQ(List(kInbox).size(), 1u);
  EXPECT_EQ(List("Local Folders/Deleted").size(), 1u);
}

TEST_F(CliTest, ExportNeverOverwrites) {
  Ok({"import", kInbox, File("a.eml", "Subject: a\n\nx\n").string()});
  const std::string dir = (box_.root() / "out").string();
  Ok({"export", kInbox, "--eml", dir});
  EXPECT_EQ(ReadFile(std::filesystem::path(dir) / "00000001.eml"), "Subject: a\r\n\r\nx\r\n");
  WriteFile(std::filesystem::path(dir) / "00000001.eml", "mine");
  CliRun run = Run({"export", kInbox, "--eml", dir});
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(Has(run.err, "(it exists and is not overwritten)")) << run.err;
  EXPECT_EQ(ReadFile(std::filesystem::path(dir) / "00000001.eml"), "mine");

  const auto mbox = File("existing.mbox", "precious");
  run = Run({"export", kInbox, "--mbox", mbox.string()});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(ReadFile(mbox), "precious");
}

// Another process holding the data directory: the second waits, then names it.
TEST_F(CliTest, SecondProcessNamesTheHolderOfTheDataDirectory) {
  Ok({"storages"});  // creates the data directory
  int input = -1;
  const pid_t holder = box_.Start({"import", kInbox, "-"}, &input);
  ASSERT_GT(holder, 0);
  // Wait until the holder has the lock: its process id is in the lock file.
  box_.Enter();
  const std::filesystem::path lock_file = InstanceLock::LockPathFor(box_.data_dir().string() + "/");
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!Has(ReadFile(lock_file), std::to_string(holder) + " trvmail-cli") &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const auto start = std::chrono::steady_clock::now();
  const CliRun second = Run({"list", kInbox});
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(second.status, 1);
  EXPECT_TRUE(Has(second.err, "the data directory " + box_.data_dir().string() + "/ is in use by process " +
                                  std::to_string(holder) + " (trvmail-cli): 0x80070020"))
      << second.err;
  EXPECT_GE(waited, std::chrono::seconds(4));

  const std::string message = "Subject: through the pipe\n\nx\n";
  ASSERT_EQ(::write(input, message.data(), message.size()), static_cast<ssize_t>(message.size()));
  ::close(input);
  const CliRun first = box_.Wait(holder);
  EXPECT_EQ(first.status, 0) << first.err;
  EXPECT_EQ(List(kInbox)[0]["subject"].text, "through the pipe");
}

TEST_F(CliTest, SecondProcessWaitsForAShortHolder) {
  Ok({"storages"});
  box_.Enter();
  InstanceLock lock;
  ASSERT_TRUE(lock.Acquire(box_.data_dir(), "cli_test", std::chrono::milliseconds(0)).ok());
  std::thread release([&lock] {
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    lock.Release();
  });
  const CliRun run = Run({"storages"});
  release.join();
  EXPECT_EQ(run.status, 0) << run.err;
}

TEST_F(CliTest, CheckRebuildsADamagedIndexFromTheMessages) {
  std::string mbox;
  for (int i = 1; i <= 5; ++i) {
    mbox += "From a@b Mon Mar  4 10:00:00 2024\nFrom: Sender " + Num(i) + " <s" + Num(i) + "@x>\nSubject: message " +
            Num(i) + "\n\nbody\n\n";
  }
  Ok({"import", kInbox, File("five.mbox", mbox).string()});
  CliRun check = Ok({"check", kInbox});
  EXPECT_TRUE(Has(check.out, "container: sound\n  index: sound\n  messages: 5, unread: 5\n")) << check.out;
  const std::filesystem::path fld = FolderFilePath(kInbox);
  ASSERT_TRUE(std::filesystem::exists(fld)) << fld;

  // Garble the second record's fixed part: the index can no longer be read
  // past it.
  {
    Container c;
    ASSERT_TRUE(c.Open(fld, {.page_size = FolderFile::kPageSize, .label = FolderFile::kLabel}).ok());
    std::unique_ptr<ContainerStream> index;
    ASSERT_TRUE(c.OpenStream(u"/Index", StreamOpen::kExisting, &index).ok());
    std::string bytes;
    ASSERT_TRUE(index->ReadRest(&bytes, UINT32_MAX).ok());
    const uint32_t first_length = static_cast<uint8_t>(bytes[4]) | static_cast<uint8_t>(bytes[5]) << 8;
    index->Seek(4 + first_length, kSeekStart);
    ASSERT_TRUE(index->WriteAll(std::string(16, '\xEE')).ok());
  }
  check = Ok({"check", kInbox});
  EXPECT_TRUE(Has(check.out, "index: could not be read (Folder loading error: ")) << check.out;
  EXPECT_TRUE(Has(check.out, "messages: 5, unread: 5")) << check.out;
  // The records are made again from the message heads.
  const JsonValue list = List(kInbox);
  std::set<std::string> rebuilt, expected;
  for (size_t i = 0; i < list.size(); ++i) rebuilt.insert(list[i]["subject"].text + " / " + list[i]["from"].text);
  for (int i = 1; i <= 5; ++i) expected.insert("message " + Num(i) + " / Sender " + Num(i) + " <s" + Num(i) + "@x>");
  EXPECT_EQ(rebuilt, expected);
  EXPECT_TRUE(Has(ReadFile(box_.data_dir() / "TarvoMail.log"), "Repaired OK"));
}

TEST_F(CliTest, AFileThatIsNoFolderFileIsReportedAndLeftAlone) {
  Ok({"storages"});
  const std::filesystem::path fld = FolderFilePath(kInbox);
  const std::string text = "this is not a container file at all, just text that was written over it\n";
  WriteFile(fld, text);
  for (const std::vector<std::string>& args : {std::vector<std::string>{"check", kInbox},
                                               std::vector<std::string>{"import", kInbox, "-"}}) {
    const CliRun run = Run(args, "Subject: x\n\ny\n");
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(Has(run.err, "folder \"Local Folders/Inbox\" could not be loaded: 0x80D00001")) << run.err;
    EXPECT_TRUE(Has(run.err, "folder \"Local Folders/Inbox\" has no open folder file")) << run.err;
  }
  EXPECT_EQ(ReadFile(fld), text);
}

TEST_F(CliTest, AMissingFolderFileIsReportedAndNotRecreated) {
  Ok({"mkdir", "Local Folders/Gone"});
  const std::filesystem::path fld = FolderFilePath("Local Folders/Gone");
  std::filesystem::remove(fld);
  const CliRun folders = Ok({"folders"});
  EXPECT_TRUE(Has(folders.err, "folder file " + fld.filename().string() + " of \"Local Folders/Gone\" not found"))
      << folders.err;
  EXPECT_TRUE(Has(folders.out, "Local Folders/Gone     folder (unavailable)         -       -")) << folders.out;
  const CliRun list = Run({"list", "Local Folders/Gone"});
  EXPECT_EQ(list.status, 1);
  EXPECT_TRUE(Has(list.err, "has no open folder file")) << list.err;
  EXPECT_FALSE(std::filesystem::exists(fld));
}

}  // namespace
}  // namespace trv::test
