#include "task_loop.h"

#include <gtest/gtest.h>

#include <future>
#include <stdexcept>
#include <string>

namespace price_server {
namespace {

using namespace std::chrono_literals;

TEST(TaskLoop, RunsTimedTasksByTheirTimesAndStopsAfterWhatWasPosted) {
  TaskLoop loop;
  std::string ran;
  std::promise<void> isLast;
  const auto now = TaskLoop::Clock::now();
  loop.RunAt(now + 2ms, [&] {
    ran += 'c';
    isLast.set_value();
  });
  loop.RunAt(now + 1ms, [&] { ran += 'b'; });
  loop.RunAt(now + 1h, [&] { ran += '!'; });
  loop.Start([] {});
  isLast.get_future().wait();
  loop.Post([&] { ran += 'd'; });
  loop.Stop();
  EXPECT_EQ(ran, "bcd");
  EXPECT_FALSE(loop.Post([] {}));
  EXPECT_NO_THROW(loop.RethrowFailure());
}

TEST(TaskLoop, KeepsNoMoreThanItsLimitOfWaitingTasks) {
  TaskLoop loop;
  std::size_t ran = 0;
  for (std::size_t i = 0; i < TaskLoop::kMaxPosted; ++i) {
    ASSERT_TRUE(loop.Post([&] { ++ran; }));
  }
  EXPECT_FALSE(loop.Post([&] { ++ran; }));
  loop.Start([] {});
  loop.Stop();
  EXPECT_EQ(ran, TaskLoop::kMaxPosted);
}

TEST(TaskLoop, RepeatsATaskUntilItThrowsAndHandsThatOn) {
  TaskLoop loop;
  int runs = 0;
  std::promise<void> hasFailed;
  loop.RunEvery(0s, [&] {
    if (++runs == 3) {
      throw std::runtime_error("third");
    }
  });
  loop.Start([&] { hasFailed.set_value(); });
  hasFailed.get_future().wait();
  loop.Stop();
  EXPECT_EQ(runs, 3);
  EXPECT_THROW(loop.RethrowFailure(), std::runtime_error);
}

}  // namespace
}  // namespace price_server
