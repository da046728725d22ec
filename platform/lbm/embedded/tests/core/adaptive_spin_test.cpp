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

struct Flow {
  const char* name;
  Duration (*gap)(int message);
  int sleepsMax;
  Duration spunInVainMax;
};

constexpr int kMessages = 10'000;
constexpr Flow kFlows[] = {
    {"OfTheShortestGaps", [](int) -> Duration { return 500ns; }, 1, 0ns},
    {"OfShortGaps", [](int) -> Duration { return 29us; }, 1, 0ns},
    {"OfLongGaps", [](int) -> Duration { return 100us; }, kMessages, 0ns},
    {"OfTheLongestGaps", [](int) -> Duration { return 1s; }, kMessages, 0ns},
    {"ThatEnds", [](int message) -> Duration { return message < 1'000 ? 5us : 500us; }, kMessages, kLongest},
    // A delay costs its own sleep, and two or so to be sure again.
    {"WithDelays", [](int message) -> Duration { return message % 100 == 99 ? 3ms : 1us; }, 400, Duration::max()},
    {"OfPairsFarApart", [](int message) -> Duration { return message % 2 == 0 ? 1us : 1ms; }, kMessages, 2 * kLongest},
};

class AdaptiveSpinInAFlow : public testing::TestWithParam<Flow> {};

TEST_P(AdaptiveSpinInAFlow, SleepsAndSpinsInVainNoMoreThanItHasTo) {
  Waiting waiting;
  for (int message = 0; message < kMessages; ++message) {
    waiting.For(GetParam().gap(message));
  }
  EXPECT_LE(waiting.sleeps, GetParam().sleepsMax);
  EXPECT_LE(waiting.spunInVain, GetParam().spunInVainMax);
}

INSTANTIATE_TEST_SUITE_P(Flows, AdaptiveSpinInAFlow, testing::ValuesIn(kFlows),
                         [](const auto& flow) { return flow.param.name; });

TEST(AdaptiveSpin, DoesNotSpinInAContextThatIsIdle) {
  AdaptiveSpin policy(kWakeUp);
  policy.NoteSleep(false, 0us);  // its time was over before it began
  EXPECT_EQ(policy.Time(), 0ns);
}

TEST(AdaptiveSpin, LeavesTheProcessorToASenderThatNeedsIt) {
  Waiting waiting;
  constexpr int kMany = 100'000;
  for (int message = 0; message < kMany; ++message) {
    waiting.OnSharedProcessorFor(1us);
  }
  EXPECT_LE(waiting.spunInVain, kMany * 100ns) << "next to the microseconds that each sleep costs";
  for (int message = 0; message < 5'000; ++message) {
    waiting.For(1us);
  }
  EXPECT_EQ(waiting.policy.Time(), kLongest) << "once the sender has a processor of its own";
}

}  // namespace
}  // namespace engine::core
