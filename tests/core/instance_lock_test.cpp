#include "core/instance_lock.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/temp_dir.h"

namespace trv {
namespace {

using namespace std::chrono_literals;

class InstanceLockTest : public ::testing::Test {
 protected:
  void SetUp() override { setenv("XDG_RUNTIME_DIR", runtime_.path().c_str(), 1); }
  test::TempDir runtime_;
  test::TempDir data_;
};

TEST_F(InstanceLockTest, SecondHolderWaitsThenNamesTheFirst) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    InstanceLock lock;
    if (lock.Acquire(data_.path(), "holder-program", 0ms).failed()) _exit(1);
    (void)!write(ready[1], "x", 1);
    pause();  // until killed
    _exit(0);
  }
  char c;
  ASSERT_EQ(read(ready[0], &c, 1), 1);

  InstanceLock second;
  const auto start = std::chrono::steady_clock::now();
  const Result r = second.Acquire(data_.path(), "second", 300ms);
  EXPECT_TRUE(r.failed());
  EXPECT_GE(std::chrono::steady_clock::now() - start, 300ms);
  EXPECT_EQ(second.holder_pid(), child);
  EXPECT_EQ(second.holder_name(), "holder-program");
  EXPECT_FALSE(second.held());

  // The lock goes with the process, however it ends.
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  EXPECT_TRUE(second.Acquire(data_.path(), "second", 1000ms).ok());
  EXPECT_TRUE(second.held());
  close(ready[0]);
  close(ready[1]);
}

TEST_F(InstanceLockTest, DirectoriesHaveTheirOwnLocks) {
  test::TempDir other;
  InstanceLock a, b;
  ASSERT_TRUE(a.Acquire(data_.path(), "a", 0ms).ok());
  EXPECT_TRUE(b.Acquire(other.path(), "b", 0ms).ok());
  // The same directory spelled differently is the same lock.
  InstanceLock c;
  EXPECT_TRUE(c.Acquire(data_.path() / "." / "", "c", 0ms).failed());
  a.Release();
  EXPECT_TRUE(c.Acquire(data_.path(), "c", 0ms).ok());
}

}  // namespace
}  // namespace trv
