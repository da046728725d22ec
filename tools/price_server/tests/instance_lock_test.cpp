#include "instance_lock.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <system_error>

#include "test_support/pipe.h"
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
    EXPECT_THAT([&] { InstanceLock(m_directory, "a"); },
                testing::ThrowsMessage<InstanceRunning>(testing::HasSubstr("process " + std::to_string(::getpid()))));
  }
  EXPECT_TRUE(std::filesystem::is_empty(m_directory));
  EXPECT_NO_THROW(InstanceLock(m_directory, "a"));
}

TEST_F(InstanceLockTest, GoesWithAKilledProcess) {
  const auto ready = test_support::MakePipe();
  const auto child = ::fork();
  if (child == 0) {
    const InstanceLock lock(m_directory, "a");
    [[maybe_unused]] const auto written = ::write(ready.writer.Get(), "x", 1);
    for (;;) {
      ::pause();
    }
  }
  char byte = 0;
  ASSERT_EQ(::read(ready.reader.Get(), &byte, 1), 1);
  EXPECT_THROW(InstanceLock(m_directory, "a"), InstanceRunning);
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  EXPECT_NO_THROW(InstanceLock(m_directory, "a"));
}

TEST_F(InstanceLockTest, SaysWhyItsFileCannotBeUsed) {
  EXPECT_THAT(
      [&] { InstanceLock(m_directory / "absent", "a"); },
      testing::ThrowsMessage<std::system_error>(testing::HasSubstr("absent/a.lock: No such file or directory")));
}

}  // namespace
}  // namespace price_server
