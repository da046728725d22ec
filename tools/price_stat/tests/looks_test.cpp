#include "looks.h"

#include <gtest/gtest.h>

#include "json.h"
#include "played_snapshot.h"
#include "system_process.h"
#include "texts.h"

namespace price_stat {
namespace {

State StateAfter(HangWatch& watch, std::vector<Process> look) {
  watch.Judge(look);
  return look.front().state;
}

TEST(HangWatch, FindsALoopThatHasStoodStillForASecondAndForgivesItWhenItGoesOn) {
  HangWatch watch;
  EXPECT_EQ(State::kRunning, StateAfter(watch, PlayedLook(10).Context(5).Take()));
  EXPECT_TRUE(watch.HasDoubts());
  EXPECT_EQ(State::kRunning, StateAfter(watch, PlayedLook(10.9).Context(5).Take()));
  auto look = PlayedLook(12.5).Context(5).Take();
  watch.Judge(look);
  EXPECT_EQ("not looping for 2.5 s", StateText(look.front().state, look.front().hangNanoseconds));
  EXPECT_EQ(State::kNotLooping, look.front().contexts.front().state);
  EXPECT_EQ(State::kRunning, StateAfter(watch, PlayedLook(13).Context(6).Take()));
  EXPECT_FALSE(watch.HasDoubts());
}

TEST(HangWatch, DoesNotBlameWhoNeverLoopedOrIsStoppedOrHasEnded) {
  HangWatch watch;
  for (const double seconds : {10.0, 20.0}) {
    EXPECT_EQ(State::kRunning, StateAfter(watch, PlayedLook(seconds, 1).Context(0).Take()));
    EXPECT_FALSE(watch.HasDoubts());
  }
  for (const auto state : {State::kStopped, State::kEnded}) {
    EXPECT_EQ(state, StateAfter(watch, PlayedLook(30, 2).Context(5).Is(state).Take()));
    EXPECT_EQ(state, StateAfter(watch, PlayedLook(40, 2).Context(5).Is(state).Take()));
  }
  // The time in which it was stopped was not spent hanging.
  EXPECT_EQ(State::kRunning, StateAfter(watch, PlayedLook(41, 2).Context(5).Take()));
}

TEST(Progress, IsOnlyOfWhatHasCounted) {
  const auto before = PlayedLook(10)
                          .Row(ReceiverKind(), 1, {"a", "0x1", "t"}, {100, 9})
                          .Row(ContextKind(), 2, {"a", "0x1"}, {7})
                          .Take();
  const auto now = PlayedLook(12)
                       .Row(ReceiverKind(), 1, {"a", "0x1", "t"}, {300, 3})
                       .Row(ReceiverKind(), 2, {"a", "0x1", "t"}, {8, 8})
                       .Row(ReceiverKind(), 3, {"a", "0x1", "t"}, {8, 8})
                       .Take();
  const auto& rows = now.front().snapshot->rows;
  const Progress progress(FindSame(now.front(), before), now.front());
  EXPECT_EQ(100, progress.RateOf(rows[0], 0));
  EXPECT_FALSE(progress.RateOf(rows[0], 1)) << "it has become less";
  EXPECT_FALSE(progress.RateOf(rows[1], 0)) << "it was another row, of another kind";
  EXPECT_FALSE(progress.RateOf(rows[2], 0)) << "it is new";
  EXPECT_FALSE(Progress(&now.front(), now.front()).RateOf(rows[0], 0)) << "no time has passed";
}

TEST(Progress, IsInJsonForCountersAlone) {
  const auto before = PlayedLook(10).Row(ReceiverKind(), 1, {"a", "0x1", "t"}, {100, 9}).Latencies(3, 100, 10).Take();
  const auto now = PlayedLook(12).Row(ReceiverKind(), 1, {"a", "0x1", "t"}, {300, 3}).Latencies(3, 100, 20).Take();
  const Progress progress(FindSame(now.front(), before), now.front());
  const auto rows = FullJson(now.front(), {}, &progress)["rows"];
  EXPECT_EQ(100, rows[0]["per_second"]["messages"]);
  EXPECT_TRUE(rows[0]["per_second"]["lost_messages"].is_null()) << "it has become less";
  EXPECT_TRUE(rows[1]["per_second"].empty()) << "a histogram has no rate";
  EXPECT_FALSE(FullJson(now.front())["rows"][0].contains("per_second")) << "after one look";
}

TEST(Progress, IsNotBetweenTwoProcessesThatHadTheSameNumber) {
  auto before = PlayedLook(10).Take();
  before.front().snapshot->startMonotonic = 5;
  EXPECT_EQ(nullptr, FindSame(PlayedLook(12).Take().front(), before));
}

TEST(Stat, IsReadWhateverTheNameIs) {
  std::string text = "42 (a) b (c) S 1 2 3 4 5 6 7 8 9 10 100 50 0 0 20 0 1 0 777";
  EXPECT_FALSE(ParseStat(text)) << "cut off";
  text += " 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 3 0\n";
  const auto thread = ParseStat(text);
  ASSERT_TRUE(thread);
  EXPECT_EQ(42, thread->id);
  EXPECT_EQ("a) b (c", thread->name);
  EXPECT_EQ('S', thread->state);
  EXPECT_EQ(777U, thread->startTicks);
  EXPECT_EQ(3, thread->lastCpu);
  for (const char* const other : {"", "42", ") (", "x (a) S", "42 (a) "}) {
    EXPECT_FALSE(ParseStat(other)) << other;
  }
}

TEST(Texts, ShortCountsFitNarrowColumns) {
  EXPECT_EQ("0", ShortCount(0));
  EXPECT_EQ("0.25", ShortCount(0.25));
  EXPECT_EQ("999", ShortCount(999.4));
  EXPECT_EQ("1.00k", ShortCount(999.6));
  EXPECT_EQ("10.0M", ShortCount(9'996'000));
  EXPECT_EQ("18.4E", ShortCount(1.8446744e19));
  for (double count = 0.001; count < 1e20; count *= 1.37) {
    EXPECT_LE(ShortCount(count).size(), 5U) << count;
  }
}

}  // namespace
}  // namespace price_stat
