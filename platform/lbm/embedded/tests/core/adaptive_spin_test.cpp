#include "core/adaptive_spin.h"

#include <gtest/gtest.h>

namespace engine::core {
namespace {

using namespace std::chrono_literals;
using Duration = AdaptiveSpin::Duration;

constexpr Duration kWakeUp = 15us;
constexpr Duration kLongest = 2 * kWakeUp;

// Waits as a context does, and counts what that costs.
class Waiting {
 public:
  // A message comes so long after the wait began.
  void For(Duration gap) { Wait(gap, gap <= policy.Time()); }

  // The same where the sender needs this thread's processor: it runs only while this thread sleeps.
  void OnSharedProcessorFor(Duration gap) { Wait(gap, false); }

  AdaptiveSpin policy{kWakeUp};
  Duration spunInVain{};
  int sleeps = 0;

 private:
  void Wait(Duration gap, bool found) {
    const Duration time = policy.Time();
    if (time > Duration::zero()) {
      policy.NoteSpin(found);
    }
    if (found) {
      return;
    }
    spunInVain += time;
    ++sleeps;
    if (time == Duration::zero()) {
      policy.NoteSleep(true, gap + kWakeUp);
    }
  }
};

TEST(AdaptiveSpin, SpinsForTwoWakeUpsWithinBounds) {
  for (const auto& [wakeUp, longest] : {std::pair<Duration, Duration>{15us, 30us}, {1us, 20us}, {10ms, 100us}}) {
    AdaptiveSpin policy(wakeUp);
    policy.NoteSleep(true, 0us);
    EXPECT_EQ(policy.Time(), longest);
  }
}

TEST(AdaptiveSpin, HardlyEverSleepsInAFlowOfShortGaps) {
  for (const auto gap : {Duration(500ns), Duration(10us), Duration(29us)}) {
    Waiting waiting;
    for (int message = 0; message < 10'000; ++message) {
      waiting.For(gap);
    }
    EXPECT_LE(waiting.sleeps, 1) << gap.count();
    EXPECT_EQ(waiting.spunInVain, 0ns);
  }
}

TEST(AdaptiveSpin, DoesNotSpinWhereGapsAreLong) {
  for (const auto gap : {Duration(100us), Duration(500us), Duration(1s)}) {
    Waiting waiting;
    for (int message = 0; message < 10'000; ++message) {
      waiting.For(gap);
    }
    EXPECT_EQ(waiting.spunInVain, 0ns) << gap.count();
  }
}

TEST(AdaptiveSpin, DoesNotSpinInAContextThatIsIdle) {
  AdaptiveSpin policy(kWakeUp);
  policy.NoteSleep(false, 0us);  // its time was over before it began
  EXPECT_EQ(policy.Time(), 0ns);
}

TEST(AdaptiveSpin, ForgetsAFlowOnceItEnds) {
  Waiting waiting;
  for (int message = 0; message < 1'000; ++message) {
    waiting.For(5us);
  }
  for (int message = 0; message < 1'000; ++message) {
    waiting.For(500us);
  }
  EXPECT_EQ(waiting.spunInVain, kLongest);
}

TEST(AdaptiveSpin, GoesOnAfterADelay) {
  Waiting waiting;
  for (int message = 0; message < 1'000; ++message) {
    waiting.For(message % 100 == 99 ? Duration(3ms) : Duration(1us));
  }
  EXPECT_LE(waiting.sleeps, 40) << "a delay costs its own sleep and two or so to be sure again";
}

TEST(AdaptiveSpin, WastesLittleOnPairsFarApart) {
  Waiting waiting;
  for (int message = 0; message < 10'000; ++message) {
    waiting.For(message % 2 == 0 ? Duration(1us) : Duration(1ms));
  }
  EXPECT_LE(waiting.spunInVain, 2 * kLongest);
}

TEST(AdaptiveSpin, LeavesTheProcessorToASenderThatNeedsIt) {
  Waiting waiting;
  constexpr int kMessages = 100'000;
  for (int message = 0; message < kMessages; ++message) {
    waiting.OnSharedProcessorFor(1us);
  }
  EXPECT_LE(waiting.spunInVain, kMessages * 100ns) << "next to the microseconds that each sleep costs";
  for (int message = 0; message < 5'000; ++message) {
    waiting.For(1us);
  }
  EXPECT_EQ(waiting.policy.Time(), kLongest) << "once the sender has a processor of its own";
}

}  // namespace
}  // namespace engine::core
