// The one place where a context's work is done: whoever is inside process() serves the transport, the registered
// descriptors, the timers and the tasks that other threads posted.
#pragma once

#include <lbm/lbm.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "core/callback_gate.h"
#include "core/descriptors.h"
#include "system/descriptor.h"

namespace engine::core {

class Dispatcher {
 public:
  using Clock = std::chrono::steady_clock;
  using Task = std::function<void()>;

  // A source of work with a descriptor to wait on; drain never waits and returns how much it did.
  struct Work {
    int descriptor;
    std::function<std::size_t()> drain;
  };

  Dispatcher();

  // Threads: before the first process().
  void setWork(Work work);

  // Does what there is to do; when that is nothing, waits up to msec milliseconds for something. Returns early after
  // unblock(), once. Throws Error when another thread is inside, or after end().
  void process(lbm_ulong_t msec);
  void unblock();  // threads: any

  // Runs the task on the dispatching thread, before it looks for other work. Tasks run in the order of their posting,
  // those posted after end() never. Threads: any.
  void post(Task task);

  // Runs the task when the time has come. Threads: the dispatching one only.
  void runAt(Clock::time_point time, Task task);

  // Ends all dispatching for good and runs the last task with nobody else inside. When the calling thread is the one
  // dispatching, that happens as soon as its present callback has returned; otherwise before end() returns.
  void end(Task last);
  bool ended() const noexcept { return m_gate.shut(); }

  CallbackGate& gate() noexcept { return m_gate; }
  Descriptors& descriptors() noexcept { return m_descriptors; }

 private:
  std::size_t runTasks();
  std::size_t runTimers();
  std::size_t waitForEvents(int timeoutMs);
  int remainingMs(Clock::time_point deadline) const;
  void wake() noexcept;
  void runLast();
  void forget();
  void leave();

  const Descriptor m_epoll;
  const Descriptor m_wake;
  CallbackGate m_gate;
  Descriptors m_descriptors;
  Work m_work{};
  std::atomic<bool> m_unblocked{false};
  std::atomic<bool> m_tasksPosted{false};

  // The dispatching thread's own:
  std::multimap<Clock::time_point, Task> m_timers;
  Task m_last;  // set by end() on the dispatching thread

  std::mutex m_tasksMutex;
  std::vector<Task> m_tasks;  // guarded by m_tasksMutex

  std::mutex m_occupancyMutex;
  std::condition_variable m_vacant;
  bool m_occupied = false;  // guarded by m_occupancyMutex
};

}  // namespace engine::core
