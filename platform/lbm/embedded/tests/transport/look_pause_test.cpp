#include "transport/host/look_pause.h"

#include <gtest/gtest.h>

namespace engine::transport::host {
namespace {

int LooksUntilDue(LookPause& pause, std::size_t framesEach) {
  for (int looks = 0; looks < 10 * LookPause::kLooksWithout; ++looks) {
    if (pause.Due()) {
      return looks;
    }
    pause.Note(framesEach);
  }
  return -1;
}

TEST(LookPause, IsDueWhileEachLookFindsAFewFrames) {
  LookPause pause;
  EXPECT_EQ(LooksUntilDue(pause, 3), LookPause::kLooks);
  pause.Note(10);
  EXPECT_TRUE(pause.Due());
  pause.Note(LookPause::kFewFrames + 1);  // the writers are far ahead anyhow
  EXPECT_FALSE(pause.Due());
  EXPECT_EQ(LooksUntilDue(pause, 1), LookPause::kLooks);
  pause.Note(0);
  EXPECT_FALSE(pause.Due());
  EXPECT_EQ(LooksUntilDue(pause, LookPause::kFewFrames + 1), -1);
}

TEST(LookPause, IsGivenUpForAWhileWhereItIsOfNoUse) {
  LookPause pause;
  LooksUntilDue(pause, 1);
  pause.Note(1);
  EXPECT_EQ(LooksUntilDue(pause, 1), LookPause::kLooksWithout + LookPause::kLooks);
}

}  // namespace
}  // namespace engine::transport::host
