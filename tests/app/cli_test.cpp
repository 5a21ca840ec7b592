// trvmail-cli run as a child process: command-line errors, what import and
// export decide about files, the single-instance lock, and the whole road: an
// mbox of 1,000 generated messages (encoded words, several recipients, base64
// attachments, body lines that start with "From ") is imported, listed,
// partly moved and deleted, exported as mbox and as .eml files, imported
// again, and every stored message is compared byte for byte with what was
// generated. The storage rules behind the commands are the store's tests.
#include <fcntl.h>
#include <signal.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <thread>

#include "core/instance_lock.h"
#include "mime/base64.h"
#include "tests/app/cli_runner.h"
#include "tests/mime/part_tree_util.h"

namespace trv::test {
namespace {

constexpr const char* kInbox = "Local Folders/Inbox";

class CliTest : public CliTestBase {
 protected:
  std::filesystem::path File(const std::string& name, const std::string& bytes) {
    WriteFile(root() / name, bytes);
    return root() / name;
  }
};

// Usage errors print the usage and nothing else. Argument parsing itself is
// ArgsTest's; these are the checks the commands add.
TEST_F(CliTest, CommandLineErrorsExitWithTwoAndTouchNothing) {
  const std::pair<std::vector<std::string>, const char*> rows[] = {
      {{}, "no command given"},
      {{"frobnicate"}, "unknown command frobnicate"},
      {{"--verbose", "storages"}, "unknown option --verbose"},  // the options before the command
      {{"show", kInbox, "xyz"}, "not a message key: \"xyz\""},
      {{"show", kInbox, "1", "--raw", "--html"}, "exclude each other"},
      {{"mark", kInbox, "1", "2"}, "\"read\" or \"unread\""},
      {{"export", kInbox}, "one of --eml DIR and --mbox FILE"},
      {{"--data-dir", "a", "storages", "--data-dir", "b"}, "--data-dir given twice"},
  };
  for (const auto& [args, says] : rows) {
    const CliRun run = Run(args);
    EXPECT_EQ(run.status, 2) << says;
    EXPECT_TRUE(Has(run.err, says) && Has(run.err, "usage: trvmail-cli")) << run.err;
    EXPECT_EQ(run.out, "") << says;
  }
  EXPECT_FALSE(std::filesystem::exists(data_dir()));
  EXPECT_FALSE(std::filesystem::exists(root() / "config/Tarvo/Mail2.ini"));
}

TEST_F(CliTest, ImportGoesPastWhatIsNotMail) {
  const auto good = File("good.eml", "From: a@b\nSubject: good\n\nbody\n");
  const auto text = File("notes.txt", "shopping: milk\nbread\n");
  const CliRun run = Run({"import", kInbox, text.string(), good.string(), (root() / "missing.eml").string()});
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(Has(run.err, text.string() + " is not mail")) << run.err;
  EXPECT_TRUE(Has(run.err, "cannot open " + (root() / "missing.eml").string() + ": 0x80070002")) << run.err;
  EXPECT_EQ(run.out, good.string() + ": 1 message imported into Local Folders/Inbox\n");
  EXPECT_EQ(List(kInbox).size(), 1u);
}

TEST_F(CliTest, ExportNeverOverwrites) {
  Ok({"import", kInbox, File("a.eml", "Subject: a\n\nx\n").string()});
  const std::string dir = (root() / "out").string();
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

// Another process holding the data directory: the second waits, then names
// it; once the holder is killed, the lock is free.
TEST_F(CliTest, SecondProcessNamesTheHolderOfTheDataDirectory) {
  Ok({"storages"});  // creates the data directory
  int input = -1;
  const pid_t holder = Start({"import", kInbox, "-"}, &input);
  ASSERT_GT(holder, 0);
  // Wait until the holder has the lock: its process id is in the lock file.
  Enter();
  const std::filesystem::path lock_file = InstanceLock::LockPathFor(data_dir().string() + "/");
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!Has(ReadFile(lock_file), std::to_string(holder) + " trvmail-cli") &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const auto start = std::chrono::steady_clock::now();
  const CliRun second = Run({"list", kInbox});
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
  EXPECT_EQ(second.status, 1);
  EXPECT_TRUE(Has(second.err, "the data directory " + data_dir().string() + "/ is in use by process " +
                                  std::to_string(holder) + " (trvmail-cli): 0x80070020"))
      << second.err;
  ::kill(holder, SIGKILL);
  ::close(input);
  (void)Wait(holder);
  EXPECT_EQ(List(kInbox).size(), 0u) << "a killed holder leaves the lock free";
}

constexpr int kMessages = 1000;

struct Generated {
  std::string text;     // LF line ends, as in an mbox file
  std::string subject;  // as the listing should show it (UTF-8)
  std::string stored;   // CR LF line ends
};

Generated MakeMessage(int i, std::mt19937& rng) {
  const std::string n = std::to_string(i);
  const char* froms[] = {"user@example.org", "Plain Name <name@example.org>",
                         "=?UTF-8?Q?J=C3=B6rg_M=C3=BCller?= <jm@example.de>", "\"Doe, Jane\" <jane@example.com>"};
  // Subject lines and what the listing shows for them; the last has none.
  const std::pair<std::string, std::string> subjects[] = {
      {"Subject: Plain subject " + n + "\n", "Plain subject " + n},
      {"Subject: =?UTF-8?B?R3LDvMOfZQ==?= " + n + "\n", "Grüße " + n},
      {"Subject: =?ISO-8859-1?Q?Caf=E9_au_lait?= " + n + "\n", "Café au lait " + n},
      {"Subject: A long subject that goes on\n and on " + n + "\n", "A long subject that goes on and on " + n},
      {"", ""}};
  std::string h = std::string("From: ") + froms[i % 4] + "\nTo: reader@example.org";
  for (int r = 0; r < i % 3; ++r) h += ",\n  other" + std::to_string(r) + "@example.net";
  h += "\n" + std::string(i % 7 == 0 ? "CC: =?ISO-8859-1?Q?Fran=E7ois?= <f@example.fr>\n" : "") + subjects[i % 5].first;
  h += i % 11 == 0 ? "Received: from relay by mx; Tue, 5 Mar 2024 08:00:00 +0000\n"
                   : "Date: Mon, " + std::to_string(1 + i % 28) + " Jan 2024 10:00:00 +0100\n";
  h += "Message-ID: <" + n + ".generated@example.org>\nMIME-Version: 1.0\n";
  std::string body = "Hello,\n\nFrom the start of a paragraph would split a careless mbox.\n>From once quoted\n"
                     ">>From twice quoted\nFrom inside a paragraph.\n\nFrom \nGr\xC3\xBC\xC3\x9F" "e, " + n + ".\n";
  if (i % 5 == 0) {
    std::string attachment(200 + rng() % 2800, '\0');
    for (char& c : attachment) c = static_cast<char>(rng());
    std::string encoded = Base64Encode(attachment, 76);
    std::erase(encoded, '\r');
    h += "Content-Type: multipart/mixed; boundary=\"b" + n + "\"\n";
    body = "--b" + n + "\nContent-Type: text/plain; charset=utf-8\n\n" + body + "--b" + n +
           "\nContent-Type: application/octet-stream\nContent-Transfer-Encoding: base64\n\n" + encoded + "\n--b" +
           n + "--\n";
  } else {
    h += "Content-Type: text/plain; charset=utf-8\n";
  }
  if (i % 13 == 0) body += "\n\n";  // empty lines at the end belong to the message
  const std::string text = h + "\n" + body;
  return {text, subjects[i % 5].second, Crlf(text)};
}

// mboxrd, written here independently of the program's writer.
std::string MakeMbox(const std::vector<Generated>& messages) {
  std::string mbox;
  for (const Generated& g : messages) {
    mbox += "From generator@example.org Mon Jan  1 00:00:00 2024\n";
    for (size_t pos = 0, end; pos < g.text.size(); pos = end) {
      end = g.text.find('\n', pos) + 1;
      if (g.text.compare(g.text.find_first_not_of('>', pos), 5, "From ") == 0) mbox += '>';
      mbox.append(g.text, pos, end - pos);
    }
    mbox += "\n";
  }
  return mbox;
}

class CliEndToEndTest : public CliTestBase {
 protected:
  // The folder's messages exported as .eml files, in index order.
  std::vector<std::string> StoredTexts(const std::string& folder, const std::string& dir_name) {
    const std::filesystem::path dir = root() / dir_name;
    Ok({"export", folder, "--eml", dir.string()});
    std::vector<std::string> texts;
    const JsonList list = List(folder);
    for (size_t i = 0; i < list.size(); ++i) texts.push_back(ReadFile(dir / (list[i]["key"].text + ".eml")));
    return texts;
  }
};

TEST_F(CliEndToEndTest, ImportListMoveDeleteExportAndImportAgain) {
  std::mt19937 rng(20240304);
  std::vector<Generated> messages;
  for (int i = 0; i < kMessages; ++i) messages.push_back(MakeMessage(i, rng));
  const std::filesystem::path mbox = root() / "generated.mbox";
  WriteFile(mbox, MakeMbox(messages));

  // Import: every message, in order, with its listing fields.
  CliRun run = Ok({"import", kInbox, mbox.string()});
  EXPECT_EQ(run.out, mbox.string() + ": 1000 messages imported into Local Folders/Inbox\n");
  EXPECT_EQ(run.err, "");  // nothing odd in this file
  JsonList list = List(kInbox);
  ASSERT_EQ(list.size(), static_cast<size_t>(kMessages));
  for (int i = 0; i < kMessages; ++i) {
    SCOPED_TRACE(i);
    char key[9], date[24];
    std::snprintf(key, sizeof key, "%.8X", i + 1);
    std::snprintf(date, sizeof date, "2024-01-%02dT09:00:00Z", 1 + i % 28);
    EXPECT_EQ(list[i]["key"].text, key);
    EXPECT_EQ(list[i]["subject"].text, messages[i].subject);
    EXPECT_EQ(list[i]["size"].number, messages[i].stored.size());
    EXPECT_FALSE(list[i]["read"].boolean);
    EXPECT_EQ(list[i]["date"].text, i % 11 == 0 ? "2024-03-05T08:00:00Z" : date);
  }
  EXPECT_EQ(list[2]["from"].text, "Jörg Müller <jm@example.de>");
  EXPECT_EQ(list[3]["from"].text, "\"Doe, Jane\" <jane@example.com>");

  std::vector<std::string> stored = StoredTexts(kInbox, "first");
  for (int i = 0; i < kMessages; ++i) ASSERT_EQ(stored[i], messages[i].stored) << "message " << i;

  // Move every tenth message to a new folder, delete every seventh of the rest.
  Ok({"mkdir", "Local Folders/Archive"});
  std::vector<std::string> move_args = {"mv", kInbox}, rm_args = {"rm", kInbox};
  std::vector<int> moved, kept;
  for (int i = 0; i < kMessages; ++i) {
    if (i % 10 == 0) {
      move_args.push_back(list[i]["key"].text), moved.push_back(i);
    } else if (i % 7 == 0) {
      rm_args.push_back(list[i]["key"].text);
    } else {
      kept.push_back(i);
    }
  }
  move_args.push_back("Local Folders/Archive");
  run = Ok(move_args);
  EXPECT_EQ(std::count(run.out.begin(), run.out.end(), '\n'), static_cast<long>(moved.size()));
  EXPECT_EQ(run.out.substr(0, 21), "00000001 -> 00000001\n");
  Ok(rm_args);
  EXPECT_EQ(List(kInbox).size(), kept.size());
  EXPECT_EQ(List("Local Folders/Archive").size(), moved.size());
  EXPECT_EQ(List("Local Folders/Deleted").size(), rm_args.size() - 2);

  // Export both folders as mbox files and import them into a fresh folder.
  const std::string inbox_mbox = (root() / "inbox.mbox").string();
  const std::string archive_mbox = (root() / "archive.mbox").string();
  Ok({"export", kInbox, "--mbox", inbox_mbox});
  Ok({"export", "Local Folders/Archive", "--mbox", archive_mbox});
  Ok({"mkdir", "Local Folders/Again"});
  EXPECT_EQ(Ok({"import", "Local Folders/Again", inbox_mbox, archive_mbox}).err, "");

  // The same bytes as generated, message for message.
  std::vector<int> expected = kept;
  expected.insert(expected.end(), moved.begin(), moved.end());
  stored = StoredTexts("Local Folders/Again", "again");
  ASSERT_EQ(stored.size(), expected.size());
  for (size_t j = 0; j < expected.size(); ++j) ASSERT_EQ(stored[j], messages[expected[j]].stored) << expected[j];
}

}  // namespace
}  // namespace trv::test
