// Crashes at random moments while a folder file is changed: a writer killed
// with SIGKILL must leave every change it saw return; a power loss must leave
// every returned change with synchronous commits, and some may be lost
// without, but the file is never damaged. In both, the change in flight is
// there whole or not at all, the folder opens without a repair, and
// "/Counts" agrees with the index.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <thread>

#include "store/folder_file.h"
#include "tests/store/fault_vfs.h"
#include "tests/support/recording_log.h"
#include "tests/support/temp_dir.h"

namespace trv {
namespace {

using test::RecordingLog;

enum OpKind : uint32_t { kAppend = 1, kDelete = 2, kMarkRead = 3, kCompact = 4 };

// Reported before (done = 0) and after (done = 1) each change; 16 bytes, so
// each write to a pipe reaches the reader whole.
struct Op {
  uint32_t kind;
  uint32_t done;
  uint32_t key;  // the key changed (for an append: known only when done)
  uint32_t seq;  // the writer's change number, which fixes an append's text
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

// One random change: mostly appends, then deletes, read marks, compactions.
Result RandomChange(FolderFile& folder, std::mt19937& rng, int round, uint32_t seq,
                    const std::function<void(const Op&)>& report) {
  const uint32_t dice = rng() % 100;
  const size_t count = folder.MessageCount();
  Op op{kAppend, 0, 0, seq};
  if (dice >= 60 && count > 0) {
    op.kind = dice < 85 ? kDelete : dice < 99 ? kMarkRead : kCompact;
    op.key = folder.MessageAt(rng() % count)->key;
  }
  report(op);
  Result r;
  switch (op.kind) {
    case kAppend: {
      MessageRecord record;
      record.subject = Utf8ToWide(Subject(round, seq));
      r = folder.Append(record, Body(round, seq), &op.key);
      break;
    }
    case kDelete: r = folder.Delete({op.key}); break;
    case kMarkRead: r = folder.SetFlags(op.key, msgflag::kRead, 0); break;
    default: r = folder.Compact(); break;
  }
  op.done = 1;
  if (r.ok()) report(op);
  return r;
}

// What a message must look like: its subject fixes its text.
struct Expected {
  std::string subject;
  bool read = false;
  friend bool operator==(const Expected&, const Expected&) = default;
};
using Contents = std::map<uint32_t, Expected>;

// Applies the changes that returned; gives the one in flight, if any.
std::optional<Op> ApplyReturned(const std::vector<Op>& ops, int round, Contents* expected, size_t* changes) {
  std::optional<Op> in_flight;
  for (const Op& o : ops) {
    if (!o.done) {
      in_flight = o;
      continue;
    }
    in_flight.reset();
    ++*changes;
    if (o.kind == kAppend) (*expected)[o.key] = {Subject(round, o.seq), false};
    if (o.kind == kDelete) expected->erase(o.key);
    if (o.kind == kMarkRead) (*expected)[o.key].read = true;
  }
  return in_flight;
}

// Opens and loads the folder; it must need no repair, and its counts must
// agree with its index.
void OpenWithoutRepair(FolderFile& folder, const RecordingLog& log, const std::filesystem::path& path) {
  ASSERT_EQ(folder.Open(path), rc::kOk);
  const FolderCounts stored = folder.counts();
  ASSERT_EQ(folder.LoadIndex(), rc::kOk);
  for (const std::string& line : log.lines) ASSERT_EQ(line.find("repair"), std::string::npos) << line;
  EXPECT_EQ(stored, folder.counts()) << "\"/Counts\" disagrees with the index";
}

// Every message is whole: its text is the one its subject was written with.
// Returns what the folder holds.
Contents WholeMessages(FolderFile& folder) {
  Contents now;
  for (const MessageRecord& r : folder.Messages()) {
    const std::string subject = WideToUtf8(r.subject);
    int round = 0;
    unsigned seq = 0;
    EXPECT_EQ(std::sscanf(subject.c_str(), "r%d-%u", &round, &seq), 2) << subject;
    std::string text;
    EXPECT_EQ(folder.ReadMessage(r.key, &text), rc::kOk) << subject;
    EXPECT_TRUE(text == Body(round, seq)) << subject;
    now[r.key] = {subject, r.is_read()};
  }
  return now;
}

// The folder holds exactly `expected`, whole, give or take the change in
// flight, which is then taken as done or not done.
void ExpectContents(FolderFile& folder, int round, const std::optional<Op>& in_flight, Contents* expected) {
  const Contents now = WholeMessages(folder);
  if (in_flight && in_flight->kind == kAppend) {
    for (const auto& [key, message] : now) {
      if (!expected->count(key)) (*expected)[key] = {Subject(round, in_flight->seq), false};
    }
  }
  const auto found = now.find(in_flight ? in_flight->key : 0);
  if (in_flight && in_flight->kind == kDelete && found == now.end()) expected->erase(in_flight->key);
  if (in_flight && in_flight->kind == kMarkRead && found != now.end()) (*expected)[found->first] = found->second;
  EXPECT_EQ(now.size(), expected->size());
  for (const auto& [key, want] : *expected) {
    const auto it = now.find(key);
    EXPECT_TRUE(it != now.end() && it->second == want) << "key " << key << ", " << want.subject;
  }
}

[[noreturn]] void RunChild(const std::filesystem::path& path, int round, bool durable, int fd) {
  NullLogSink log;
  FolderFile folder(log, FolderFileOptions{.sync_commits = durable});
  if (folder.Open(path).failed() || folder.LoadIndex().failed()) _exit(3);
  std::mt19937 rng(static_cast<uint32_t>(round));
  auto report = [fd](const Op& op) {
    if (write(fd, &op, sizeof op) != sizeof op) _exit(5);
  };
  for (uint32_t seq = 0;; ++seq) {
    if (RandomChange(folder, rng, round, seq, report).failed()) _exit(4);
  }
}

class FolderCrashTest : public ::testing::Test {
 protected:
  void SetUp() override {
    NullLogSink log;
    FolderFile folder(log);
    ASSERT_EQ(folder.Create(path_), rc::kOk);
  }
  test::TempDir dir_;
  std::filesystem::path path_ = dir_ / "crash.fld";
  const uint32_t seed_ = static_cast<uint32_t>(std::chrono::steady_clock::now().time_since_epoch().count());
  std::mt19937 rng_{seed_};
};

TEST_F(FolderCrashTest, KilledWritersLeaveEveryReturnedChange) {
  SCOPED_TRACE("seed " + std::to_string(seed_));
  Contents expected;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
  int rounds = 0;
  size_t changes = 0;
  for (; rounds < 60 && std::chrono::steady_clock::now() < deadline; ++rounds) {
    SCOPED_TRACE("round " + std::to_string(rounds));
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) RunChild(path_, rounds, rounds % 2 == 0, fds[1]);
    close(fds[1]);
    std::this_thread::sleep_for(std::chrono::microseconds(rng_() % 80000));
    kill(pid, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFSIGNALED(status)) << "child ended by itself with " << WEXITSTATUS(status);
    std::vector<Op> ops;
    Op op;
    while (read(fds[0], &op, sizeof op) == sizeof op) ops.push_back(op);
    close(fds[0]);

    const std::optional<Op> in_flight = ApplyReturned(ops, rounds, &expected, &changes);
    RecordingLog log;
    FolderFile folder(log);
    ASSERT_NO_FATAL_FAILURE(OpenWithoutRepair(folder, log, path_));
    ExpectContents(folder, rounds, in_flight, &expected);
    ASSERT_FALSE(HasFailure());
  }
  EXPECT_GE(rounds, 50);
  EXPECT_GT(changes, 500u);
  RecordProperty("changes", static_cast<int>(changes));
}

TEST_F(FolderCrashTest, PowerLossKeepsSyncedChangesAndNeverDamages) {
  SCOPED_TRACE("seed " + std::to_string(seed_));
  test::FaultVfs vfs;
  Contents expected;
  size_t changes = 0;
  for (int round = 0; round < 60; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const bool durable = round % 3 != 0;
    std::vector<Op> ops;
    {
      NullLogSink log;
      FolderFile folder(log, FolderFileOptions{.sync_commits = durable});
      ASSERT_EQ(folder.Open(path_), rc::kOk);
      ASSERT_EQ(folder.LoadIndex(), rc::kOk);
      // The plug is pulled somewhere inside one of the next changes.
      vfs.FreezeAfter(1 + static_cast<int>(rng_() % 120));
      for (uint32_t seq = 0;; ++seq) {
        if (RandomChange(folder, rng_, round, seq, [&](const Op& op) { ops.push_back(op); }).failed()) break;
      }
    }
    vfs.PowerLoss(rng_);

    const std::optional<Op> in_flight = ApplyReturned(ops, round, &expected, &changes);
    RecordingLog log;
    FolderFile folder(log);
    ASSERT_NO_FATAL_FAILURE(OpenWithoutRepair(folder, log, path_));
    if (durable) {
      ExpectContents(folder, round, in_flight, &expected);
    } else {
      expected = WholeMessages(folder);  // some returned changes may be gone
    }
    ASSERT_FALSE(HasFailure());
  }
  EXPECT_GT(changes, 100u);
}

}  // namespace
}  // namespace trv
