#include "transport/host/ring/poll_backoff.h"

#include <gtest/gtest.h>

namespace engine::transport::host {
namespace {

int PollsUntilDue(PollBackoff& pause, std::size_t framesEach) {
  for (int looks = 0; looks < 10 * PollBackoff::kPollsSuspended; ++looks) {
    if (pause.Due()) {
      return looks;
    }
    pause.NotePoll(framesEach);
  }
  return -1;
}

TEST(PollBackoff, IsDueWhileEachLookFindsAFewFrames) {
  PollBackoff pause;
  EXPECT_EQ(PollsUntilDue(pause, 3), PollBackoff::kPollsInARow);
  pause.NotePoll(10);
  EXPECT_TRUE(pause.Due());
  pause.NotePoll(PollBackoff::kFewFrames + 1);  // the writers are far ahead anyhow
  EXPECT_FALSE(pause.Due());
  EXPECT_EQ(PollsUntilDue(pause, 1), PollBackoff::kPollsInARow);
  pause.NotePoll(0);
  EXPECT_FALSE(pause.Due());
  EXPECT_EQ(PollsUntilDue(pause, PollBackoff::kFewFrames + 1), -1);
}

TEST(PollBackoff, IsGivenUpForAWhileWhereItIsOfNoUse) {
  PollBackoff pause;
  PollsUntilDue(pause, 1);
  pause.NotePoll(1);
  EXPECT_EQ(PollsUntilDue(pause, 1), PollBackoff::kPollsSuspended + PollBackoff::kPollsInARow);
}

}  // namespace
}  // namespace engine::transport::host
