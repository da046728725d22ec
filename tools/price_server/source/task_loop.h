// The thread for everything that must not hold up the prices.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

namespace price_server {

// Runs tasks one at a time on a thread of its own: posted ones in their order, timed ones once they are due. What a
// task throws ends the loop.
//
// Threads: Start, Stop and RethrowFailure on the owner's; the rest on any.
class TaskLoop {
 public:
  using Clock = std::chrono::steady_clock;
  using Task = std::function<void()>;

  // So that a flood of messages is not kept in memory.
  static constexpr std::size_t kMaxPosted = 10'000;
  static constexpr Clock::duration kShortestPeriod = std::chrono::milliseconds(1);

  TaskLoop() = default;
  ~TaskLoop() { Stop(); }
  TaskLoop(const TaskLoop&) = delete;
  TaskLoop& operator=(const TaskLoop&) = delete;

  // onFailure is called on the loop's thread when a task has thrown.
  void Start(std::function<void()> onFailure);

  // Runs what was posted before, drops what is not due yet, and returns when the thread has ended. Takes no task
  // afterwards.
  void Stop();

  // False when the task was not taken: kMaxPosted are waiting, or the loop has stopped.
  bool Post(Task task);

  void RunAt(Clock::time_point time, Task task);

  // First after one period, then once a period; periods that were missed are left out. Periods below kShortestPeriod
  // are taken for that.
  void RunEvery(Clock::duration period, Task task);

  bool HasFailed() const { return m_hasFailed; }

  // Throws what a task threw. After Stop.
  void RethrowFailure() const;

 private:
  void Run();
  Task Next();
  void RunPeriodically(Clock::time_point due, Clock::duration period, Task task);

  std::thread m_thread;
  std::atomic<bool> m_hasFailed{false};
  std::function<void()> m_onFailure;
  std::exception_ptr m_failure;  // written by the thread, read after its end

  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::deque<Task> m_posted;                       // under m_mutex
  std::multimap<Clock::time_point, Task> m_timed;  // under m_mutex
  bool m_isStopping = false;                       // under m_mutex
};

}  // namespace price_server
