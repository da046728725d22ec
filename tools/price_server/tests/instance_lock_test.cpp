#include "instance_lock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <system_error>

#include "test_support/temporary_directory.h"

namespace price_server {
namespace {

class InstanceLockTest : public testing::Test {
 protected:
  const test_support::TemporaryDirectory m_temporary;
  const std::filesystem::path& m_directory = m_temporary.Path();
};

TEST_F(InstanceLockTest, IsHeldByOneAtATimeAndLeavesNothing) {
  {
    const InstanceLock first(m_directory, "a");
    const InstanceLock other(m_directory, "b");
    try {
      const InstanceLock second(m_directory, "a");
      ADD_FAILURE() << "locked twice";
    } catch (const InstanceRunning& error) {
      EXPECT_THAT(error.what(), testing::HasSubstr("process " + std::to_string(::getpid())));
    }
  }
  EXPECT_TRUE(std::filesystem::is_empty(m_directory));
  EXPECT_NO_THROW(InstanceLock(m_directory, "a"));
}

TEST_F(InstanceLockTest, GoesWithAKilledProcess) {
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const auto child = ::fork();
  if (child == 0) {
    const InstanceLock lock(m_directory, "a");
    [[maybe_unused]] const auto written = ::write(ready[1], "x", 1);
    for (;;) {
      ::pause();
    }
  }
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  EXPECT_THROW(InstanceLock(m_directory, "a"), InstanceRunning);
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  EXPECT_NO_THROW(InstanceLock(m_directory, "a"));
  ::close(ready[0]);
  ::close(ready[1]);
}

TEST_F(InstanceLockTest, SaysWhyItsFileCannotBeUsed) {
  try {
    const InstanceLock lock(m_directory / "absent", "a");
    ADD_FAILURE() << "locked in a directory that does not exist";
  } catch (const std::system_error& error) {
    EXPECT_THAT(error.what(), testing::HasSubstr("absent/a.lock: No such file or directory"));
  }
}

}  // namespace
}  // namespace price_server
