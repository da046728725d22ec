// Work for a context's dispatching thread.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <vector>

namespace engine::core {

using Task = std::function<void()>;

// Tasks posted by other threads, in the order of their posting.
class TaskQueue {
 public:
  // Whether the dispatching thread is to be woken: it has not been since it last took tasks. Threads: any.
  bool Post(Task task);

  // What was posted since the last call. Looks at one atomic when there is nothing. Threads: the dispatching one.
  std::vector<Task> Take();

  // Drops what is there and takes nothing more. Threads: any.
  void Close();

 private:
  std::atomic<bool> m_posted{false};
  std::mutex m_mutex;
  // Guarded by m_mutex:
  std::vector<Task> m_tasks;
  bool m_closed = false;
};

// Tasks for later. Threads: the dispatching one only.
class Timers {
 public:
  using Clock = std::chrono::steady_clock;

  void RunAfter(std::chrono::milliseconds delay, Task task);

  // Runs what is due, and returns how many that were. Asks for the time only when there are timers.
  std::size_t RunDue();

  std::optional<Clock::time_point> NextDue() const;

  // Drops what is not due yet.
  void Clear() { m_timers.clear(); }

 private:
  std::multimap<Clock::time_point, Task> m_timers;
};

}  // namespace engine::core
