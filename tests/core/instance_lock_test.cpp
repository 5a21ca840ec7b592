#include "core/instance_lock.h"

#include <gtest/gtest.h>

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
