#include "replay_schedule.h"

#include <gtest/gtest.h>

namespace price_server {
namespace {

using namespace std::chrono_literals;

const ReplaySchedule::Clock::time_point kStart{1000s};

TEST(ReplaySchedule, KeepsTheRateOverAnyNumberOfUpdates) {
  ReplaySchedule schedule(3, kStart);
  EXPECT_EQ(schedule.NextDue(), kStart);
  for (int i = 0; i < 3'000'000; ++i) {
    schedule.Advance(schedule.NextDue());
  }
  EXPECT_LT(std::chrono::abs(schedule.NextDue() - (kStart + 1'000'000s)), 1us);
}

TEST(ReplaySchedule, CatchesUpAfterASmallDelay) {
  ReplaySchedule schedule(10, kStart);
  for (int i = 0; i < 10; ++i) {
    schedule.Advance(kStart + 900ms);
  }
  EXPECT_EQ(schedule.NextDue(), kStart + 1s);
}

TEST(ReplaySchedule, SkipsWhatAStallHeldUp) {
  ReplaySchedule schedule(10, kStart);
  schedule.Advance(kStart + 60s);
  EXPECT_EQ(schedule.NextDue(), kStart + 60s + 100ms);
}

TEST(ReplaySchedule, WithoutARateEveryUpdateIsDue) {
  ReplaySchedule schedule(0, kStart);
  for (int i = 0; i < 10; ++i) {
    schedule.Advance(kStart + 5s);
  }
  EXPECT_EQ(schedule.NextDue(), kStart);
}

}  // namespace
}  // namespace price_server
