#include "cli/signal_wait.h"

#include <gtest/gtest.h>

#include <thread>

namespace cli {
namespace {

using namespace std::chrono_literals;
using Clock = SignalWait::Clock;

TEST(SignalWait, AnotherThreadEndsAWaitEvenBeforeItBegins) {
  SignalWait wait{SIGUSR1};
  const auto deadline = Clock::now() + 60s;
  wait.Wake();
  wait.Wake();
  EXPECT_EQ(wait.WaitUntil(deadline), 0);
  std::thread other([&] { wait.Wake(); });
  EXPECT_EQ(wait.WaitUntil(deadline), 0);
  other.join();
  EXPECT_LT(Clock::now(), deadline);
  // All wakes are used up.
  const auto soon = Clock::now() + 20ms;
  EXPECT_EQ(wait.WaitUntil(soon), 0);
  EXPECT_GE(Clock::now(), soon);
}

TEST(SignalWait, ASignalIsSeenWhateverElseIsPending) {
  SignalWait wait{SIGUSR1};
  wait.Wake();
  ::raise(SIGUSR1);
  EXPECT_EQ(wait.WaitUntil(Clock::now() + 60s), SIGUSR1);
  EXPECT_EQ(wait.WaitUntil(Clock::now() + 60s), 0);
  EXPECT_EQ(wait.WaitUntil(Clock::now() - 1s), 0);
}

}  // namespace
}  // namespace cli
