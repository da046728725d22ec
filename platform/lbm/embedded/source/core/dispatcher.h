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
#include <span>
#include <vector>

#include "core/callback_gate.h"
#include "core/descriptors.h"
#include "zq/posix/descriptor.h"
#include "zq/posix/event.h"

struct epoll_event;

namespace engine::core {

class Dispatcher {
 public:
  using Clock = std::chrono::steady_clock;
  using Task = std::function<void()>;

  // Where the work comes from, see transport::Transport. No drain waits; each returns how much it did.
  class Work {
   public:
    virtual ~Work() = default;
    virtual int GetDescriptor() const noexcept = 0;
    virtual std::size_t DrainMemory() = 0;
    virtual std::size_t Drain() = 0;
    virtual bool Arm() = 0;
    virtual void Disarm() noexcept = 0;
    virtual std::chrono::microseconds SpinTime() const = 0;  // for which to look before waiting
  };

  Dispatcher();

  // Threads: before the first process().
  void SetWork(Work& work);

  // Does what there is to do; when that is nothing, waits up to msec milliseconds for something. Returns early after
  // unblock(), once. Throws Error when another thread is inside, or after End().
  //
  // Memory shared with peers is looked at always. What takes a system call to look at is looked at always only before
  // waiting; otherwise (msec is 0, or there is no end of messages) the registered descriptors, if any, are, and all
  // else once in kLookEvery.
  void Process(lbm_ulong_t msec);
  void Unblock();  // threads: any

  static constexpr std::chrono::milliseconds kLookEvery{1};

  // Runs the task on the dispatching thread, before it looks for other work. Tasks run in the order of their posting,
  // those posted after End() never. Threads: any.
  void Post(Task task);

  // Runs the task when the time has come. Threads: the dispatching one only.
  void RunAt(Clock::time_point time, Task task);

  // Ends all dispatching for good and runs the last task with nobody else inside. When the calling thread is the one
  // dispatching, that happens as soon as its present callback has returned; otherwise before End() returns.
  void End(Task last);
  bool Ended() const noexcept { return m_gate.Shut(); }

  CallbackGate& Gate() noexcept { return m_gate; }
  Descriptors& GetDescriptors() noexcept { return m_descriptors; }

 private:
  std::size_t RunTasks();
  std::size_t RunTimers();
  std::size_t RunWithoutSystemCalls();
  bool LookIsDue();
  std::size_t Look(int timeoutMs);
  std::size_t WaitAndLook(int timeoutMs);
  std::size_t HandleEvents(std::span<const epoll_event> events);
  int RemainingMs(Clock::time_point deadline) const;
  void RunLast();
  void Forget();
  void Leave();

  const zq::posix::Descriptor m_epoll;
  zq::posix::Event m_wake;
  CallbackGate m_gate;
  Descriptors m_descriptors;
  Work* m_work = nullptr;
  std::atomic<bool> m_unblocked{false};
  std::atomic<bool> m_tasksPosted{false};

  // The dispatching thread's own:
  Clock::time_point m_nextLook;
  std::multimap<Clock::time_point, Task> m_timers;
  Task m_last;  // set by End() on the dispatching thread

  std::mutex m_tasksMutex;
  std::vector<Task> m_tasks;  // guarded by m_tasksMutex

  std::mutex m_occupancyMutex;
  std::condition_variable m_vacant;
  bool m_occupied = false;  // guarded by m_occupancyMutex
};

}  // namespace engine::core
