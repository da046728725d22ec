#include "transport/host/ring/poll_backoff.h"

#include <gtest/gtest.h>

namespace engine::transport::host {
namespace {

int PollsUntilDue(PollBackoff& backoff, std::size_t framesEach) {
  for (int polls = 0; polls < 10 * PollBackoff::kPollsSuspended; ++polls) {
    if (backoff.Due()) {
      return polls;
    }
    backoff.NotePoll(framesEach);
  }
  return -1;
}

TEST(PollBackoff, IsDueWhileEachPollFindsAFewFrames) {
  PollBackoff backoff;
  EXPECT_EQ(PollsUntilDue(backoff, 3), PollBackoff::kPollsInARow);
  backoff.NotePoll(10);
  EXPECT_TRUE(backoff.Due());
  backoff.NotePoll(PollBackoff::kFewFrames + 1);  // the producers are far ahead anyhow
  EXPECT_FALSE(backoff.Due());
  EXPECT_EQ(PollsUntilDue(backoff, 1), PollBackoff::kPollsInARow);
  backoff.NotePoll(0);
  EXPECT_FALSE(backoff.Due());
  EXPECT_EQ(PollsUntilDue(backoff, PollBackoff::kFewFrames + 1), -1);
}

TEST(PollBackoff, IsSuspendedWhereItIsOfNoUse) {
  PollBackoff backoff;
  PollsUntilDue(backoff, 1);
  backoff.NotePoll(1);
  EXPECT_EQ(PollsUntilDue(backoff, 1), PollBackoff::kPollsSuspended + PollBackoff::kPollsInARow);
  backoff.NotePoll(1);
  EXPECT_EQ(PollsUntilDue(backoff, 1), 2 * PollBackoff::kPollsSuspended + PollBackoff::kPollsInARow) << "once more";
  backoff.NotePoll(2);
  backoff.NotePoll(1);
  EXPECT_EQ(PollsUntilDue(backoff, 1), PollBackoff::kPollsSuspended + PollBackoff::kPollsInARow)
      << "although the last pause but one was of use";
}

}  // namespace
}  // namespace engine::transport::host
