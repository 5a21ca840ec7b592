// trvmail-cli run as a child process: command-line errors, what import and
// export decide about files, and the single-instance lock. The storage rules
// behind the commands are the store's tests; the whole road is
// cli_end_to_end_test.cpp.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "core/instance_lock.h"
#include "tests/app/cli_runner.h"

namespace trv::test {
namespace {

constexpr const char* kInbox = "Local Folders/Inbox";

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

class CliTest : public CliTestBase {
 protected:
  std::filesystem::path File(const std::string& name, const std::string& bytes) {
    const std::filesystem::path p = box_.root() / name;
    WriteFile(p, bytes);
    return p;
  }
  // Runs that fail with `status`, standard error saying `says`.
  struct Failure { const char* name; std::vector<std::string> args; const char* says; };
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

TEST_F(CliTest, ImportGoesPastWhatIsNotMail) {
  const auto good = File("good.eml", "From: a@b\nSubject: good\n\nbody\n");
  const auto text = File("notes.txt", "shopping: milk\nbread\n");
  const CliRun run = Run({"import", kInbox, text.string(), good.string(), (box_.root() / "missing.eml").string()});
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(Has(run.err, text.string() + " is not mail")) << run.err;
  EXPECT_TRUE(Has(run.err, "cannot open " + (box_.root() / "missing.eml").string() + ": 0x80070002")) << run.err;
  EXPECT_EQ(run.out, good.string() + ": 1 message imported into Local Folders/Inbox\n");
  EXPECT_EQ(List(kInbox).size(), 1u);
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
// (That a lock freed while waiting is taken is the instance lock's own test.)
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

}  // namespace
}  // namespace trv::test
