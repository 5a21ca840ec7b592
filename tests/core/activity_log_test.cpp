#include "core/activity_log.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "tests/support/temp_dir.h"

namespace trv {
namespace {

using test::ReadFile;
using test::TempDir;
using test::WriteFile;

// Two-byte prefixes and CR LF; nothing while disabled, before opening, after
// closing, or when the log cannot be opened.
TEST(ActivityLogTest, LineFormAndWhenNothingIsWritten) {
  TempDir dir;
  WriteFile(dir / "not-a-dir", "file");
  ActivityLog log;
  EXPECT_FALSE(log.Open(dir / "not-a-dir"));
  log.Log("before open");
  ASSERT_TRUE(log.Open(dir.path()));
  log.Log("event", kLogEvent);
  log.Log("USER ********", kLogSent);
  log.Log("+OK", kLogReceived);
  log.Log("plain", 7);
  log.Log("", kLogEvent);
  log.SetEnabled(false);
  log.Log("muted");
  log.SetEnabled(true);
  log.Log("heard");
  log.Close();
  log.Log("after close");
  EXPECT_EQ(ReadFile(dir / "TarvoMail.log"), "- event\r\nS USER ********\r\nR +OK\r\nplain\r\n- \r\n- heard\r\n");
}

// The rotation boundary: a log of exactly 204,799 bytes is appended to; one
// byte more and it becomes the backup, replacing an older one.
TEST(ActivityLogTest, RotationBoundary) {
  TempDir dir;
  const auto log_path = dir / "TarvoMail.log";
  const auto bak_path = dir / "TarvoMail.bak";
  const auto open_and_log = [&](const char* text) {
    ActivityLog log;
    EXPECT_TRUE(log.Open(dir.path()));
    log.Log(text);
  };
  WriteFile(log_path, std::string(204799, 'a'));
  WriteFile(bak_path, "old backup");
  open_and_log("x");
  EXPECT_EQ(std::filesystem::file_size(log_path), 204799u + 5u);
  EXPECT_EQ(ReadFile(bak_path), "old backup");
  WriteFile(log_path, std::string(204800, 'b'));
  open_and_log("y");
  EXPECT_EQ(ReadFile(log_path), "- y\r\n");
  EXPECT_EQ(std::filesystem::file_size(bak_path), 204800u);
}

TEST(ActivityLogTest, LinesFromThreadsNeverInterleave) {
  TempDir dir;
  ActivityLog log;
  ASSERT_TRUE(log.Open(dir.path()));
  {
    std::vector<std::jthread> threads;
    for (char c : {'a', 'b', 'c', 'd'}) {
      threads.emplace_back([&log, c] {
        for (int i = 0; i < 200; ++i) log.Log(std::string(50, c), kLogSent);
      });
    }
  }
  log.Close();
  const std::string all = ReadFile(dir / "TarvoMail.log");
  ASSERT_EQ(all.size(), 4u * 200u * 54u);
  for (size_t off = 0; off < all.size(); off += 54) {
    ASSERT_EQ(all.substr(off, 54), "S " + std::string(50, all[off + 2]) + "\r\n") << "at " << off;
  }
}

}  // namespace
}  // namespace trv
