#include "system/wall_clock.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>

namespace engine {
namespace {

std::int64_t Nanoseconds(const timespec& time) { return time.tv_sec * 1'000'000'000 + time.tv_nsec; }

std::int64_t KernelNow() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return Nanoseconds(now);
}

// Through many readings of the kernel's clock, and the second in which its nanoseconds begin again.
TEST(WallClock, AgreesWithTheKernelWithinAMicrosecond) {
  constexpr std::int64_t kMicrosecond = 1'000;
  constexpr std::int64_t kDuration = 1'200'000'000;
  WallClock clock;
  const std::int64_t begin = KernelNow();
  std::int64_t before = begin;
  while (before - begin < kDuration) {
    const timespec read = clock.Now();
    const std::int64_t after = KernelNow();
    ASSERT_GE(Nanoseconds(read), before - kMicrosecond);
    ASSERT_LE(Nanoseconds(read), after + kMicrosecond);
    ASSERT_LT(read.tv_nsec, 1'000'000'000);
    before = after;
  }
}

// The pace of the interval before says nothing about what comes after a pause in which the machine may have been moved.
TEST(WallClock, ReadsTheKernelsClockAfterAPause) {
  WallClock clock;
  for (const std::int64_t begin = KernelNow(); KernelNow() - begin < 5'000'000;) {
    static_cast<void>(clock.Now());
  }
  const timespec pause{.tv_sec = 0, .tv_nsec = 20'000'000};
  nanosleep(&pause, nullptr);
  const std::int64_t before = KernelNow();
  const std::int64_t read = Nanoseconds(clock.Now());
  EXPECT_GE(read, before);
  EXPECT_LE(read, KernelNow());
}

}  // namespace
}  // namespace engine
