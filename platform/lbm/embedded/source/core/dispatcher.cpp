#include "core/dispatcher.h"

#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <optional>
#include <utility>

#include "system/error.h"
#include "system/processor.h"

namespace engine::core {

namespace {

void WatchForInput(int epoll, int fd) {
  epoll_event wanted{};
  wanted.events = EPOLLIN;
  wanted.data.fd = fd;
  if (::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &wanted) == -1) {
    zq::posix::ThrowErrno("cannot watch a descriptor of the engine's own");
  }
}

// What is ready, of at most as many as there is room for; nothing when the time has passed or a signal came.
std::span<const epoll_event> Poll(int epoll, std::span<epoll_event> events, int timeoutMs) {
  const int count = ::epoll_wait(epoll, events.data(), static_cast<int>(events.size()), timeoutMs);
  if (count == -1 && errno != EINTR) {
    zq::posix::ThrowErrno("cannot wait for events");
  }
  return events.first(static_cast<std::size_t>(std::max(count, 0)));
}

}  // namespace

Dispatcher::Dispatcher()
    : m_epoll(zq::posix::Checked(::epoll_create1(EPOLL_CLOEXEC), "cannot create an epoll descriptor")),
      m_descriptors(m_epoll.Get(), m_gate) {
  WatchForInput(m_epoll.Get(), m_wake.GetDescriptor());
}

void Dispatcher::SetWork(Work& work) {
  m_work = &work;
  WatchForInput(m_epoll.Get(), work.GetDescriptor());
}

void Dispatcher::Process(lbm_ulong_t msec) {
  {
    const std::lock_guard lock(m_occupancyMutex);
    if (Ended()) {
      throw Error(LBM_EOP, "the context is deleted");
    }
    if (std::exchange(m_occupied, true)) {
      throw Error(LBM_EOP, "another thread is processing this context's events");
    }
  }
  struct Leave {
    Dispatcher& dispatcher;
    ~Leave() { dispatcher.Leave(); }
  } const leave{*this};
  const CallbackGate::Scope scope(m_gate);
  struct RunLast {
    Dispatcher& dispatcher;
    ~RunLast() { dispatcher.RunLast(); }
  } const last{*this};

  std::optional<Clock::time_point> deadline;
  std::optional<Clock::time_point> spinDeadline;
  while (true) {
    const std::size_t done = RunWithoutSystemCalls();
    const bool unblocked = m_unblocked.load(std::memory_order_relaxed) && m_unblocked.exchange(false);
    const bool stop = done != 0 || unblocked || Ended();
    if (stop || msec == 0) {
      if (!m_descriptors.Empty() || LookIsDue()) {
        Look(0);
      }
      return;
    }
    const Clock::time_point now = Clock::now();
    if (!deadline) {
      // Far enough for any purpose, near enough for the clock's arithmetic.
      constexpr lbm_ulong_t kLongest = 1000UL * 60 * 60 * 24 * 365;
      deadline = now + std::chrono::milliseconds(std::min(msec, kLongest));
      spinDeadline = std::min(*deadline, now + m_work->SpinTime());
    }
    if (now < *spinDeadline) {
      if ((!m_descriptors.Empty() || LookIsDue()) && Look(0) != 0) {
        return;
      }
      PauseProcessor();
      continue;
    }
    const int timeoutMs = RemainingMs(*deadline);
    if (WaitAndLook(timeoutMs) != 0 || Ended() || timeoutMs == 0) {
      return;
    }
  }
}

std::size_t Dispatcher::RunWithoutSystemCalls() { return RunTasks() + RunTimers() + m_work->DrainMemory(); }

bool Dispatcher::LookIsDue() {
  const Clock::time_point now = Clock::now();
  if (now < m_nextLook) {
    return false;
  }
  m_nextLook = now + kLookEvery;
  return true;
}

void Dispatcher::RunLast() {
  if (m_last) {
    const Task last = std::move(m_last);
    last();
    Forget();
  }
}

// Tasks and timers may own what owns this dispatcher: they must not wait for its end.
void Dispatcher::Forget() {
  std::vector<Task> tasks;
  {
    const std::lock_guard lock(m_tasksMutex);
    tasks.swap(m_tasks);
  }
  m_timers.clear();
}

void Dispatcher::Leave() {
  {
    const std::lock_guard lock(m_occupancyMutex);
    m_occupied = false;
  }
  m_vacant.notify_all();
}

void Dispatcher::Unblock() {
  m_unblocked.store(true);
  m_wake.Notify();
}

void Dispatcher::Post(Task task) {
  {
    const std::lock_guard lock(m_tasksMutex);
    if (Ended()) {
      return;
    }
    m_tasks.push_back(std::move(task));
  }
  if (!m_tasksPosted.exchange(true)) {
    m_wake.Notify();
  }
}

void Dispatcher::RunAt(Clock::time_point time, Task task) { m_timers.emplace(time, std::move(task)); }

std::size_t Dispatcher::RunTasks() {
  if (!m_tasksPosted.load(std::memory_order_relaxed) || !m_tasksPosted.exchange(false)) {
    return 0;
  }
  std::vector<Task> tasks;
  {
    const std::lock_guard lock(m_tasksMutex);
    tasks.swap(m_tasks);
  }
  for (const Task& task : tasks) {
    if (Ended()) {
      break;
    }
    task();
  }
  return tasks.size();
}

std::size_t Dispatcher::RunTimers() {
  if (m_timers.empty()) {
    return 0;
  }
  std::size_t done = 0;
  for (const Clock::time_point now = Clock::now(); !m_timers.empty() && m_timers.begin()->first <= now; ++done) {
    const Task task = std::move(m_timers.extract(m_timers.begin()).mapped());
    task();
  }
  return done;
}

int Dispatcher::RemainingMs(Clock::time_point deadline) const {
  const Clock::time_point first = m_timers.empty() ? deadline : std::min(deadline, m_timers.begin()->first);
  const auto remaining = std::chrono::ceil<std::chrono::milliseconds>(first - Clock::now()).count();
  return static_cast<int>(std::clamp<std::int64_t>(remaining, 0, INT_MAX));
}

// Looks at what takes a system call to look at.
std::size_t Dispatcher::Look(int timeoutMs) {
  std::array<epoll_event, 32> events;
  return HandleEvents(Poll(m_epoll.Get(), events, timeoutMs));
}

// The same, waiting until something arrives in memory, too.
std::size_t Dispatcher::WaitAndLook(int timeoutMs) {
  if (!m_work->Arm()) {
    return 0;
  }
  std::array<epoll_event, 32> events;
  std::span<const epoll_event> ready;
  {
    struct Disarm {
      Work& work;
      ~Disarm() { work.Disarm(); }
    } const disarm{*m_work};
    ready = Poll(m_epoll.Get(), events, timeoutMs);
  }
  return HandleEvents(ready);
}

std::size_t Dispatcher::HandleEvents(std::span<const epoll_event> events) {
  std::size_t done = 0;
  for (const epoll_event& event : events) {
    if (event.data.fd == m_wake.GetDescriptor()) {
      m_wake.Clear();
    } else if (event.data.fd == m_work->GetDescriptor()) {
      done += m_work->Drain();
    } else {
      done += m_descriptors.Ready(event.data.fd, event.events);
    }
  }
  return done;
}

void Dispatcher::End(Task last) {
  if (m_gate.Dispatching()) {
    m_gate.ShutDown();
    m_last = std::move(last);
    return;
  }
  std::unique_lock lock(m_occupancyMutex);
  m_gate.ShutDown();
  m_wake.Notify();
  m_vacant.wait(lock, [this] { return !m_occupied; });
  m_occupied = true;
  lock.unlock();
  last();
  Forget();
}

}  // namespace engine::core
