#include "instance_lock.h"

#include <gmock/gmock.h>
#include <unistd.h>

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
    EXPECT_THAT([&] { InstanceLock(m_directory, "a"); },
                testing::ThrowsMessage<InstanceRunning>(testing::HasSubstr("process " + std::to_string(::getpid()))));
  }
  EXPECT_TRUE(std::filesystem::is_empty(m_directory));
  EXPECT_NO_THROW(InstanceLock(m_directory, "a"));
}

TEST_F(InstanceLockTest, SaysWhyItsFileCannotBeUsed) {
  EXPECT_THAT(
      [&] { InstanceLock(m_directory / "absent", "a"); },
      testing::ThrowsMessage<std::system_error>(testing::HasSubstr("absent/a.lock: No such file or directory")));
}

}  // namespace
}  // namespace price_server
