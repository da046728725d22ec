// The thread for everything but the prices.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <utility>
#include <vector>

#include "lbm/context.h"

namespace price_server {

// Serves a context, and runs what its events, descriptors and the time give rise to, one task at a time, on the thread
// that is inside Run. Callbacks of the context are to do no more than to note something or to post a task: unlike a
// task, they must not throw, and they hold up the messaging.
//
// No more tasks can be waiting than one look at the context gives rise to, as they run before the next one; a flood of
// messages stays with the messaging library.
//
// Threads: for the one that calls Run, callbacks of the context included; Stop on any.
class EventLoop {
 public:
  using Clock = std::chrono::steady_clock;
  using Task = std::function<void()>;

  static constexpr Clock::duration kShortestPeriod = std::chrono::milliseconds(1);

  // ctx has to be sequential and to outlive the loop, which nobody else may process.
  explicit EventLoop(lbm::Context& ctx) : m_ctx(ctx) {}
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // Runs the task soon, after those posted before.
  void Post(Task task) { m_posted.push_back(std::move(task)); }

  void RunAt(Clock::time_point time, Task task) { m_timed.emplace(time, std::move(task)); }

  // First after one period, then once a period; periods that were missed are left out. Periods below kShortestPeriod
  // are taken for that.
  void RunEvery(Clock::duration period, Task task);

  // Runs the task whenever the descriptor has something to read, until it returns false. What can always be read
  // without waiting, such as a file, is read in turns with everything else. Throws lbm::LbmError.
  void WatchForInput(int descriptor, std::function<bool()> task);

  // Runs tasks until Stop; what one look at the context gave rise to runs to its end. Throws what a task throws, and
  // lbm::LbmError.
  void Run();

  // Ends Run for good.
  void Stop();

 private:
  struct Input {
    std::function<bool()> task;
    bool isWatched = false;
    bool isPosted = false;
  };

  static int OnReadable(lbm_context_t* ctx, int descriptor, lbm_ulong_t event, void* loop);

  void RunPeriodically(Clock::time_point due, Clock::duration period, Task task);
  void PostInput(int descriptor);
  void TakeIn(int descriptor);
  lbm_ulong_t MillisecondsToNextTask() const;
  void RunPosted();
  void RunDue();

  lbm::Context& m_ctx;
  std::atomic<bool> m_isStopped{false};
  std::vector<Task> m_posted;
  std::multimap<Clock::time_point, Task> m_timed;
  std::map<int, Input> m_inputs;  // by descriptor
};

}  // namespace price_server
