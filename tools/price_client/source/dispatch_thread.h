// Running things on the connector's dispatch thread.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>

namespace price_client {

// What belongs to the dispatch thread needs no locks, as long as others ask that thread for it.
//
// Threads: Run and NoteEnd on one thread; Serve on the dispatch thread.
class DispatchThread {
 public:
  // Ticks of 50 ms without Serve after which the thread counts as ended. Ticks and not time, so that a process that was
  // stopped and continued is not taken for a broken one.
  static constexpr int kPatience = 200;

  // wake is to make the thread call Serve soon, even if no event comes.
  explicit DispatchThread(std::function<void()> wake, int patience = kPatience)
      : m_wake(std::move(wake)), m_patience(patience) {}

  // Runs the task between two events and returns when it has run. What it throws leaves here, and std::runtime_error
  // does when the thread has ended, or hangs, before the task begins. One that has begun is waited for.
  void Run(const std::function<void()>& task);

  // The thread has ended in order. Tasks run on the caller's from now on.
  void NoteEnd() { m_hasEnded = true; }

  // Runs the task that is waited for, if any.
  void Serve();

 private:
  const std::function<void()> m_wake;
  const int m_patience;
  bool m_hasEnded = false;

  std::atomic<bool> m_isWanted{false};
  std::mutex m_mutex;
  std::packaged_task<void()> m_task;  // guarded by m_mutex; waited for while m_isWanted
};

}  // namespace price_client
