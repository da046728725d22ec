#include "transport/host/look_pause.h"

#include <gtest/gtest.h>

namespace engine::transport::host {
namespace {

int looksUntilDue(LookPause& pause, std::size_t framesEach) {
  for (int looks = 0; looks < 10 * LookPause::kLooksWithout; ++looks) {
    if (pause.due()) {
      return looks;
    }
    pause.note(framesEach);
  }
  return -1;
}

TEST(LookPause, IsDueWhileEachLookFindsAFewFrames) {
  LookPause pause;
  EXPECT_EQ(looksUntilDue(pause, 3), LookPause::kLooks);
  pause.note(10);
  EXPECT_TRUE(pause.due());
  pause.note(LookPause::kFewFrames + 1);  // the writers are far ahead anyhow
  EXPECT_FALSE(pause.due());
  EXPECT_EQ(looksUntilDue(pause, 1), LookPause::kLooks);
  pause.note(0);
  EXPECT_FALSE(pause.due());
  EXPECT_EQ(looksUntilDue(pause, LookPause::kFewFrames + 1), -1);
}

TEST(LookPause, IsGivenUpForAWhileWhereItIsOfNoUse) {
  LookPause pause;
  looksUntilDue(pause, 1);
  pause.note(1);
  EXPECT_EQ(looksUntilDue(pause, 1), LookPause::kLooksWithout + LookPause::kLooks);
}

}  // namespace
}  // namespace engine::transport::host
