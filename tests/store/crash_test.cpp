// A child process changes a folder file until it is killed with SIGKILL at a
// random moment; the parent then opens the folder and checks that every
// change the child saw return is there, that the change in flight is there
// whole or not at all, and that no repair was needed.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <random>
#include <thread>

#include "store/folder_file.h"
#include "tests/store/folder_test_util.h"
#include "tests/support/temp_dir.h"

namespace trv {
namespace {

using test::RecordingLog;
using test::TempDir;

enum OpKind : uint32_t { kAppend = 1, kDelete = 2, kMarkRead = 3, kCompact = 4 };

// Written to the pipe before (done = 0) and after (done = 1) each change;
// 16 bytes, so each write reaches the parent whole.
struct Op {
  uint32_t kind;
  uint32_t done;
  uint32_t key;  // the key changed (for an append: known only when done)
  uint32_t seq;  // the child's change number, which fixes an append's text
};

std::string Subject(int round, uint32_t seq) { return "r" + std::to_string(round) + "-" + std::to_string(seq); }

// Sizes from small to past one 32 KB chunk, so appends span chunks.
std::string Body(int round, uint32_t seq) {
  const size_t size = seq % 17 == 0 ? 40000 + seq : 200 + (seq * 7919u + round * 31u) % 6000;
  std::string text = "Subject: " + Subject(round, seq) + "\r\n\r\n";
  text.reserve(size);
  while (text.size() < size) text.push_back(static_cast<char>('a' + (text.size() + seq) % 26));
  return text;
}

[[noreturn]] void RunChild(const std::filesystem::path& path, int round, bool durable, int fd) {
  NullLogSink log;
  FolderFile folder(log, FolderFileOptions{.sync_commits = durable});
  if (folder.Open(path).failed() || folder.LoadIndex().failed()) _exit(3);
  std::mt19937 rng(static_cast<uint32_t>(round));
  auto report = [&](const Op& op) {
    if (write(fd, &op, sizeof op) != sizeof op) _exit(5);
  };
  for (uint32_t seq = 0;; ++seq) {
    const uint32_t dice = rng() % 100;
    const size_t count = folder.MessageCount();
    if (dice < 60 || count == 0) {
      report({kAppend, 0, 0, seq});
      MessageRecord record;
      record.subject = Utf8ToWide(Subject(round, seq));
      uint32_t key = 0;
      if (folder.Append(record, Body(round, seq), &key).failed()) _exit(4);
      report({kAppend, 1, key, seq});
    } else if (dice < 85) {
      const uint32_t key = folder.MessageAt(rng() % count)->key;
      report({kDelete, 0, key, seq});
      if (folder.Delete({key}).failed()) _exit(4);
      report({kDelete, 1, key, seq});
    } else if (dice < 99) {
      const uint32_t key = folder.MessageAt(rng() % count)->key;
      report({kMarkRead, 0, key, seq});
      if (folder.SetFlags(key, msgflag::kRead, 0).failed()) _exit(4);
      report({kMarkRead, 1, key, seq});
    } else {
      report({kCompact, 0, 0, seq});
      if (folder.Compact().failed()) _exit(4);
      report({kCompact, 1, 0, seq});
    }
  }
}

struct Expected {
  std::string subject;
  std::string text;
  bool read = false;
};

TEST(FolderCrashTest, KilledWritersLeaveEveryReturnedChange) {
  TempDir dir;
  const auto path = dir / "crash.fld";
  {
    NullLogSink log;
    FolderFile folder(log);
    ASSERT_EQ(folder.Create(path), rc::kOk);
  }
  const uint32_t seed = static_cast<uint32_t>(std::chrono::steady_clock::now().time_since_epoch().count());
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  std::map<uint32_t, Expected> expected;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
  int rounds = 0;
  size_t changes = 0;
  for (; rounds < 60 && std::chrono::steady_clock::now() < deadline; ++rounds) {
    SCOPED_TRACE("round " + std::to_string(rounds));
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const bool durable = rounds % 2 == 0;
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      close(fds[0]);
      RunChild(path, rounds, durable, fds[1]);
    }
    close(fds[1]);
    std::this_thread::sleep_for(std::chrono::microseconds(rng() % 80000));
    kill(pid, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFSIGNALED(status)) << "child ended by itself with " << WEXITSTATUS(status);

    std::vector<Op> ops;
    Op op;
    while (read(fds[0], &op, sizeof op) == sizeof op) ops.push_back(op);
    close(fds[0]);
    // Apply the changes that returned; remember the one in flight.
    std::optional<Op> in_flight;
    for (const Op& o : ops) {
      if (!o.done) {
        in_flight = o;
        continue;
      }
      in_flight.reset();
      ++changes;
      if (o.kind == kAppend) expected[o.key] = {Subject(rounds, o.seq), Body(rounds, o.seq), false};
      if (o.kind == kDelete) expected.erase(o.key);
      if (o.kind == kMarkRead) expected[o.key].read = true;
    }

    RecordingLog log;
    FolderFile folder(log);
    ASSERT_EQ(folder.Open(path), rc::kOk);
    const FolderCounts stored = folder.counts();
    ASSERT_EQ(folder.LoadIndex(), rc::kOk);
    for (const std::string& line : log.lines) ASSERT_EQ(line.find("repair"), std::string::npos) << line;
    EXPECT_EQ(stored, folder.counts()) << "\"/Counts\" disagrees with the index";

    // The change in flight: whole or not at all.
    if (in_flight && in_flight->kind == kAppend) {
      for (const MessageRecord& r : folder.Messages()) {
        if (!expected.count(r.key)) {
          ASSERT_EQ(WideToUtf8(r.subject), Subject(rounds, in_flight->seq));
          expected[r.key] = {Subject(rounds, in_flight->seq), Body(rounds, in_flight->seq), false};
        }
      }
    }
    if (in_flight && in_flight->kind == kDelete && !folder.FindMessage(in_flight->key)) {
      expected.erase(in_flight->key);
    }
    if (in_flight && in_flight->kind == kMarkRead && folder.FindMessage(in_flight->key)) {
      expected[in_flight->key].read = folder.FindMessage(in_flight->key)->is_read();
    }

    ASSERT_EQ(folder.MessageCount(), expected.size());
    for (const auto& [key, want] : expected) {
      const std::optional<MessageRecord> r = folder.FindMessage(key);
      ASSERT_TRUE(r) << "key " << key;
      EXPECT_EQ(WideToUtf8(r->subject), want.subject) << "key " << key;
      EXPECT_EQ(r->is_read(), want.read) << "key " << key;
      std::string text;
      ASSERT_EQ(folder.ReadMessage(key, &text), rc::kOk) << "key " << key;
      ASSERT_TRUE(text == want.text) << "key " << key;
    }
  }
  EXPECT_GE(rounds, 50);
  EXPECT_GT(changes, 500u);
  RecordProperty("changes", static_cast<int>(changes));
}

}  // namespace
}  // namespace trv
