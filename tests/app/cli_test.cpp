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
  EXPECT_EQ(run.out, good.string() + ": 1 messages imported into Local Folders/Inbox\n");
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

// Another process holding the data directory: the second waits, then names it.
// (That a lock freed while waiting is taken is the instance lock's own test.)
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
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(second.status, 1);
  EXPECT_TRUE(Has(second.err, "the data directory " + data_dir().string() + "/ is in use by process " +
                                  std::to_string(holder) + " (trvmail-cli): 0x80070020"))
      << second.err;
  EXPECT_GE(waited, std::chrono::seconds(4));

  const std::string message = "Subject: through the pipe\n\nx\n";
  ASSERT_EQ(::write(input, message.data(), message.size()), static_cast<ssize_t>(message.size()));
  ::close(input);
  const CliRun first = Wait(holder);
  EXPECT_EQ(first.status, 0) << first.err;
  EXPECT_EQ(List(kInbox)[0]["subject"].text, "through the pipe");
}

}  // namespace
}  // namespace trv::test
