#include "core/event_queue.h"

#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "system/error.h"

namespace engine::core {
namespace {

class Counter : public EventHandler {
 public:
  void Run(Event&) override {
    ++runs;
    if (onRun) {
      onRun();
    }
  }

  int runs = 0;
  std::function<void()> onRun;
};

class Waiter : public RoomWaiter {
 public:
  void OnRoom() noexcept override { told = true; }
  bool told = false;
};

class EventQueueShutdown : public testing::Test {
 protected:
  // An event and a task, each of which holds the counter.
  void Post() {
    m_queue.Post(m_counter, {});
    m_queue.Post(MakeTask([counter = m_counter] { ++counter->runs; }));
  }

  // Nothing holds the counter, and nothing has run or runs but the first.
  void ExpectNothingLeft() {
    EXPECT_EQ(m_counter.use_count(), 1);
    Post();
    EXPECT_EQ(m_counter.use_count(), 1) << "it takes nothing more";
    EXPECT_EQ(m_queue.Dispatch(LBM_EVENT_QUEUE_BLOCK), 0);
    EXPECT_EQ(m_counter->runs, 1);
  }

  EventQueue m_queue{{.bytesMax = 1}};
  const std::shared_ptr<Counter> m_counter = std::make_shared<Counter>();
};

TEST_F(EventQueueShutdown, DropsWhatIsQueuedAndTellsThoseWhoWaitForRoom) {
  const auto waiter = std::make_shared<Waiter>();
  m_counter->onRun = [&] { m_queue.Unblock(); };
  for (int i = 0; i < 3; ++i) {
    m_queue.Post(m_counter, {});
  }
  EXPECT_EQ(m_queue.Dispatch(LBM_EVENT_QUEUE_BLOCK), 1) << "the others are taken over";
  Post();
  EXPECT_TRUE(m_queue.AwaitRoom(waiter));
  m_queue.Shutdown();
  EXPECT_TRUE(waiter->told);
  ExpectNothingLeft();
}

TEST_F(EventQueueShutdown, InACallbackEndsTheDispatchWithIt) {
  m_counter->onRun = [&] { m_queue.Shutdown(); };
  m_queue.Post(m_counter, {});
  m_queue.Post(m_counter, {});
  EXPECT_EQ(m_queue.Dispatch(LBM_EVENT_QUEUE_BLOCK), 1);
  m_queue.Shutdown();
  ExpectNothingLeft();
}

TEST_F(EventQueueShutdown, WakesTheOneThreadThatMayDispatch) {
  const auto isRefused = [&](lbm_ulong_t msec) {
    try {
      m_queue.Dispatch(msec);
      return false;
    } catch (const Error& error) {
      return error.Number() == LBM_EOP;
    }
  };
  // Either may come first.
  const std::jthread dispatching([&] {
    while (isRefused(LBM_EVENT_QUEUE_BLOCK)) {
    }
  });
  while (!isRefused(LBM_EVENT_QUEUE_POLL)) {
    std::this_thread::yield();
  }
  m_queue.Shutdown();
}

TEST(TaskQueue, DropsWhatIsThereWhenItIsClosedAndTakesNothingMore) {
  const auto held = std::make_shared<int>();
  TaskQueue queue;
  queue.Post(MakeTask([held] {}));
  queue.Close();
  queue.Post(MakeTask([held] {}));
  EXPECT_EQ(held.use_count(), 1);
}

}  // namespace
}  // namespace engine::core
