// trvmail-cli's accounts and compose, run as a child process: passwords
// reach neither the settings file nor the log, settings change by their key
// names with refusals that name the key, and a composed message lands in the
// account's outbox or drafts. The settings themselves are the services'
// tests.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <fstream>
#include <thread>
#include <tuple>

#include "tests/app/cli_runner.h"

namespace trv::test {
namespace {

class CliAccountsTest : public CliTestBase {
 protected:
  CliRun Add(std::vector<std::string> extra, const std::string& input = "") {
    std::vector<std::string> args = {"account", "add", "--class", "POP3", "--name", "Work", "--email",
                                     "me@example.org", "--host", "pop.example.org"};
    args.insert(args.end(), extra.begin(), extra.end());
    return Run(args, input);
  }
  std::string SettingsBytes() { return ReadFile(data_dir() / "Settings.ini"); }
};

TEST_F(CliAccountsTest, PasswordsStayOutOfFileAndLogWhileSettingsRoundTrip) {
  Ok({"--json", "storages"});  // the data directory, before the first account
  const CliRun add = Add({"--user", "me", "--password-stdin", "--smtp-auth", "credentials", "--smtp-user", "me2",
                          "--smtp-password-stdin", "--socks", "5", "--socks-host", "127.0.0.1", "--socks-port",
                          "1080", "--socks-user", "su", "--socks-password-stdin"},
                         "Pop-Pw-1\r\nSmtp-Pw-2\nSocks-Pw-3\n");
  ASSERT_EQ(add.status, 0) << add.err;
  EXPECT_FALSE(Has(SettingsBytes(), "Pop-Pw-1") || Has(SettingsBytes(), "Smtp-Pw-2")) << SettingsBytes();
  {  // the rotated-out part of the log comes first
    std::ofstream(data_dir() / "TarvoMail.bak") << "rotated line\r\n";
    const std::string log = Ok({"log"}).out;
    EXPECT_EQ(log.rfind("rotated line\n", 0), 0u) << log;
    EXPECT_FALSE(Has(log, "Socks-Pw-3"));
  }

  const std::string shown = Ok({"account", "show", "work"}).out;
  for (const char* line : {"POP3Psswd                 stored", "SMTPPsswd                 stored",
                           "POP3UserName              me\n", "SMTPAuthentication        3",
                           "POP3SocksPassword         stored"}) {
    EXPECT_TRUE(Has(shown, line)) << line << "\n" << shown;
  }
  EXPECT_FALSE(Has(shown, "Pop-Pw-1") || Has(shown, "Smtp-Pw-2") || Has(shown, "Socks-Pw-3"));

  // A changed host re-enciphers the kept password: it still reads as stored.
  Ok({"account", "set", "Work", "LoadBodySize=4096", "pop3host=other.example.org", "DeleteOnServer=yes"});
  const std::string after = Ok({"account", "show", "Work"}).out;
  for (const char* line : {"LoadBodySize              4096", "POP3Host                  other.example.org",
                           "DeleteOnServer            1", "POP3Psswd                 stored"}) {
    EXPECT_TRUE(Has(after, line)) << line << "\n" << after;
  }
  EXPECT_FALSE(Has(SettingsBytes(), "Pop-Pw-1"));

  const std::pair<const char*, const char*> refused[] = {
      {"Bogus=1", "no setting Bogus"},
      {"SMTPPassword=x", "--password-stdin"},
      {"SMTPPort=70000", "SMTPPort takes a number from 1 to 65535"},
      {"POP3Timeout=0", "POP3Timeout takes a number from 1 to 65535"},  // would save as 60
      {"DeleteOnServer=maybe", "DeleteOnServer takes 1 or 0"},
      {"GUID={00000000-0000-0000-0000-000000000000}", "GUID cannot be changed"},
      {"LoadBodySize", "is not KEY=VALUE"},
  };
  const std::string before = SettingsBytes();
  for (const auto& [pair, says] : refused) {
    const CliRun run = Run({"account", "set", "Work", "SyncMinutes=5", pair});
    EXPECT_EQ(run.status, 1) << pair;
    EXPECT_TRUE(Has(run.err, says)) << pair << ": " << run.err;
  }
  EXPECT_EQ(SettingsBytes(), before) << "a refused set changed nothing";

  Ok({"account", "remove", "Work"});
  EXPECT_EQ(Json(Ok({"--json", "account", "list"}).out).size(), 0u);
  EXPECT_TRUE(Has(Ok({"storages"}).out, "Work")) << "the storage stays without --delete-storage";
}

TEST_F(CliAccountsTest, AddRefusesBadLinesAndPicksPortsByTheSslMode) {
  const std::pair<std::vector<std::string>, const char*> usage[] = {
      {{"--password", "x"}, "unknown option --password"},
      {{"--password-stdin"}, "--password-stdin needs --user"},
      {{"--socks", "5"}, "needs --socks, --socks-host and --socks-port together"},
  };
  for (const auto& [extra, says] : usage) {
    const CliRun run = Add(extra);
    EXPECT_EQ(run.status, 2) << says;
    EXPECT_TRUE(Has(run.err, says)) << run.err;
  }
  EXPECT_EQ(Add({"--user", "me", "--password-stdin"}, "").status, 1) << "no password line";

  struct Row { const char* cls; std::vector<std::string> extra; double port, smtp_port; };
  const Row rows[] = {
      {"POP3", {"--ssl", "explicit", "--smtp-ssl", "implicit"}, 110, 465},
      {"IMAP4", {"--ssl", "implicit", "--smtp-port", "587"}, 993, 587},
      {"IMAP4", {"--port", "1143"}, 1143, 25},
  };
  for (size_t i = 0; i < std::size(rows); ++i) {
    std::vector<std::string> args = {"account", "add", "--class", rows[i].cls, "--name", "A" + std::to_string(i),
                                     "--email", "a@x.org", "--host", "h.x.org"};
    args.insert(args.end(), rows[i].extra.begin(), rows[i].extra.end());
    Ok(args);
    const JsonObject a = Json(Ok({"--json", "account", "list"}).out).back();
    EXPECT_EQ(a["port"].number, rows[i].port) << i;
    EXPECT_EQ(a["smtp_port"].number, rows[i].smtp_port) << i;
  }
  EXPECT_EQ(Add({}).status, 0);
  EXPECT_EQ(Add({}).status, 1) << "a second account of the same name";
}

TEST_F(CliAccountsTest, ComposeQueuesInTheAccountsOutboxOrDrafts) {
  ASSERT_EQ(Add({}).status, 0);
  WriteFile(root() / "notes.txt", "attached bytes\n");
  const CliRun queued = Ok({"compose", "--account", "Work", "--to", "a@x.org", "--to", "b@x.org, c@x.org", "--bcc",
                            "hidden@x.org", "--subject", "Plans", "--attach", (root() / "notes.txt").string(),
                            "--priority", "high"},
                           "Body from standard input.\n");
  EXPECT_EQ(queued.out, "Work/Outbox 00000001\n");
  const std::string raw = Ok({"show", "Work/Outbox", "1", "--raw"}).out;
  for (const char* part : {"To: a@x.org, b@x.org, c@x.org", "BCC: hidden@x.org", "X-Unsent: 1", "Subject: Plans",
                           "X-Priority: 1", "notes.txt", "Body from standard input."}) {
    EXPECT_TRUE(Has(raw, part)) << part << "\n" << raw;
  }
  Ok({"compose", "--account", "Work", "--subject", "Later", "--draft"}, "draft text\n");
  EXPECT_EQ(List("Work/Drafts").size(), 1u);
  EXPECT_EQ(List("Work/Outbox").size(), 1u);
  const CliRun missing = Run({"compose", "--account", "Work", "--to", "a@x.org", "--subject", "S", "--attach",
                              (root() / "gone.bin").string()}, "x\n");
  EXPECT_EQ(missing.status, 1);
  EXPECT_TRUE(Has(missing.err, "gone.bin")) << missing.err;
  EXPECT_EQ(List("Work/Outbox").size(), 1u);
  EXPECT_EQ(Run({"fetch", "Work/Outbox", "1"}).status, 1) << "only a partially loaded message can be completed";
}

// The stop signals reach watch's own wait, not the default action, in every
// thread the engine and the scheduler started.
TEST_F(CliAccountsTest, WatchEndsCleanlyOnEachStopSignal) {
  ASSERT_EQ(Add({"--port", "1"}).status, 0);  // a start-up run that fails at once
  for (const int signal : {SIGTERM, SIGINT}) {
    int input = -1;
    const pid_t pid = Start({"watch"}, &input);
    ASSERT_GT(pid, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    ::kill(pid, signal);
    ::close(input);
    const CliRun run = Wait(pid);
    EXPECT_EQ(run.status, 0) << signal << ": " << run.err;
    EXPECT_TRUE(Has(run.out, "Work: sent 0, downloaded 0; ended with")) << run.out;
  }
}


TEST_F(CliAccountsTest, FolderSyncSetsTheOptionsThatAccountShowLists) {
  Ok({"account", "add", "--class", "IMAP4", "--name", "Mail", "--email", "me@example.org", "--host", "imap.example.org"});
  const std::string shown = Ok({"account", "show", "Mail"}).out;
  const std::string guid = shown.substr(shown.find('{', shown.find("GUID ")), 38);
  // The records a first sync leaves: INBOX and a child with a non-ASCII name.
  std::string sections;
  for (auto [id, server, local] : {std::tuple{"1", "INBOX", "Inbox"}, {"2", "INBOX.Bücher", "Inbox/Bücher"}}) {
    sections += "\n[Folder." + guid + ".0000000" + id + "]\nSp=\xEF\xBB\xBF.\r\nLocal=\xEF\xBB\xBF" + local +
                "\r\nServer=\xEF\xBB\xBF" + server + "\r\nSync=29\r\nUIDNext=-5\r\nUIDValid=7\r\n";
  }
  WriteFile(data_dir() / "Settings.ini", SettingsBytes() + sections);
  const std::tuple<std::vector<std::string>, int, std::string> runs[] = {
      {{"INBOX.Bücher", "download,new"}, 0, "\"INBOX.Bücher\" of account \"Mail\": Download, DownloadNew\n"},
      {{"inbox/bücher", "download, new", "upload"}, 0, "Download, DownloadNew, Upload\n"},  // by local path
      {{"inbox", "none"}, 0, "\"INBOX\" of account \"Mail\": none\n"},
      {{"Nope", "upload"}, 1, "no folder \"Nope\" in account \"Mail\"; `sync` lists the server's folders first"},
      {{"INBOX", "new"}, 2, "give it with \"download\""},
      {{"INBOX", "none,upload"}, 2, "\"none\" alone"},
  };
  for (const auto& [words, status, says] : runs) {
    std::vector<std::string> args = {"folder-sync", "Mail"};
    args.insert(args.end(), words.begin(), words.end());
    const CliRun run = Run(args);
    EXPECT_TRUE(run.status == status && Has(run.out + run.err, says)) << run.status << run.out << run.err;
  }
  const std::string json = Ok({"--json", "account", "show", "Mail"}).out;
  EXPECT_TRUE(Has(json, "\"server\":\"INBOX\",\"local\":\"Inbox\",\"options\":\"none\",\"uid_next\":4294967291,"
                        "\"uid_valid\":7},{\"server\":\"INBOX.Bücher\",\"local\":\"Inbox/Bücher\",\"options\":"
                        "\"Download, DownloadNew, Upload\"")) << json;
}
}  // namespace
}  // namespace trv::test
