#include "core/dispatcher.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <optional>
#include <system_error>
#include <utility>

#include "system/error.h"
#include "system/processor.h"

namespace engine::core {

namespace {

Descriptor checked(int fd, const char* what) {
  if (fd == -1) {
    throw std::system_error(errno, std::system_category(), what);
  }
  return Descriptor(fd);
}

void watchForInput(int epoll, int fd) {
  epoll_event wanted{};
  wanted.events = EPOLLIN;
  wanted.data.fd = fd;
  if (::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &wanted) == -1) {
    throw std::system_error(errno, std::system_category(), "cannot watch a descriptor of the engine's own");
  }
}

// What is ready, of at most as many as there is room for; nothing when the time has passed or a signal came.
std::span<const epoll_event> poll(int epoll, std::span<epoll_event> events, int timeoutMs) {
  const int count = ::epoll_wait(epoll, events.data(), static_cast<int>(events.size()), timeoutMs);
  if (count == -1 && errno != EINTR) {
    throw std::system_error(errno, std::system_category(), "cannot wait for events");
  }
  return events.first(static_cast<std::size_t>(std::max(count, 0)));
}

}  // namespace

Dispatcher::Dispatcher()
    : m_epoll(checked(::epoll_create1(EPOLL_CLOEXEC), "cannot create an epoll descriptor")),
      m_wake(checked(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "cannot create an event descriptor")),
      m_descriptors(m_epoll.get(), m_gate) {
  watchForInput(m_epoll.get(), m_wake.get());
}

void Dispatcher::setWork(Work& work) {
  m_work = &work;
  watchForInput(m_epoll.get(), work.descriptor());
}

void Dispatcher::process(lbm_ulong_t msec) {
  {
    const std::lock_guard lock(m_occupancyMutex);
    if (ended()) {
      throw Error(LBM_EOP, "the context is deleted");
    }
    if (std::exchange(m_occupied, true)) {
      throw Error(LBM_EOP, "another thread is processing this context's events");
    }
  }
  struct Leave {
    Dispatcher& dispatcher;
    ~Leave() { dispatcher.leave(); }
  } const leave{*this};
  const CallbackGate::Scope scope(m_gate);
  struct RunLast {
    Dispatcher& dispatcher;
    ~RunLast() { dispatcher.runLast(); }
  } const last{*this};

  std::optional<Clock::time_point> deadline;
  std::optional<Clock::time_point> spinDeadline;
  while (true) {
    const std::size_t done = runWithoutSystemCalls();
    const bool unblocked = m_unblocked.load(std::memory_order_relaxed) && m_unblocked.exchange(false);
    const bool stop = done != 0 || unblocked || ended();
    if (stop || msec == 0) {
      if (!m_descriptors.empty() || lookIsDue()) {
        look(0);
      }
      return;
    }
    const Clock::time_point now = Clock::now();
    if (!deadline) {
      // Far enough for any purpose, near enough for the clock's arithmetic.
      constexpr lbm_ulong_t kLongest = 1000UL * 60 * 60 * 24 * 365;
      deadline = now + std::chrono::milliseconds(std::min(msec, kLongest));
      spinDeadline = std::min(*deadline, now + m_work->spinTime());
    }
    if (now < *spinDeadline) {
      if ((!m_descriptors.empty() || lookIsDue()) && look(0) != 0) {
        return;
      }
      pauseProcessor();
      continue;
    }
    const int timeoutMs = remainingMs(*deadline);
    if (waitAndLook(timeoutMs) != 0 || ended() || timeoutMs == 0) {
      return;
    }
  }
}

std::size_t Dispatcher::runWithoutSystemCalls() { return runTasks() + runTimers() + m_work->drainMemory(); }

bool Dispatcher::lookIsDue() {
  const Clock::time_point now = Clock::now();
  if (now < m_nextLook) {
    return false;
  }
  m_nextLook = now + kLookEvery;
  return true;
}

void Dispatcher::runLast() {
  if (m_last) {
    const Task last = std::move(m_last);
    last();
    forget();
  }
}

// Tasks and timers may own what owns this dispatcher: they must not wait for its end.
void Dispatcher::forget() {
  std::vector<Task> tasks;
  {
    const std::lock_guard lock(m_tasksMutex);
    tasks.swap(m_tasks);
  }
  m_timers.clear();
}

void Dispatcher::leave() {
  {
    const std::lock_guard lock(m_occupancyMutex);
    m_occupied = false;
  }
  m_vacant.notify_all();
}

void Dispatcher::unblock() {
  m_unblocked.store(true);
  wake();
}

void Dispatcher::wake() noexcept {
  const std::uint64_t one = 1;
  // Fails only when the counter is full: then the descriptor is readable anyhow.
  static_cast<void>(::write(m_wake.get(), &one, sizeof(one)));
}

void Dispatcher::post(Task task) {
  {
    const std::lock_guard lock(m_tasksMutex);
    if (ended()) {
      return;
    }
    m_tasks.push_back(std::move(task));
  }
  if (!m_tasksPosted.exchange(true)) {
    wake();
  }
}

void Dispatcher::runAt(Clock::time_point time, Task task) { m_timers.emplace(time, std::move(task)); }

std::size_t Dispatcher::runTasks() {
  if (!m_tasksPosted.load(std::memory_order_relaxed) || !m_tasksPosted.exchange(false)) {
    return 0;
  }
  std::vector<Task> tasks;
  {
    const std::lock_guard lock(m_tasksMutex);
    tasks.swap(m_tasks);
  }
  for (const Task& task : tasks) {
    if (ended()) {
      break;
    }
    task();
  }
  return tasks.size();
}

std::size_t Dispatcher::runTimers() {
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

int Dispatcher::remainingMs(Clock::time_point deadline) const {
  const Clock::time_point first = m_timers.empty() ? deadline : std::min(deadline, m_timers.begin()->first);
  const auto remaining = std::chrono::ceil<std::chrono::milliseconds>(first - Clock::now()).count();
  return static_cast<int>(std::clamp<std::int64_t>(remaining, 0, INT_MAX));
}

// Looks at what takes a system call to look at.
std::size_t Dispatcher::look(int timeoutMs) {
  std::array<epoll_event, 32> events;
  return handleEvents(poll(m_epoll.get(), events, timeoutMs));
}

// The same, waiting until something arrives in memory, too.
std::size_t Dispatcher::waitAndLook(int timeoutMs) {
  if (!m_work->arm()) {
    return 0;
  }
  std::array<epoll_event, 32> events;
  std::span<const epoll_event> ready;
  {
    struct Disarm {
      Work& work;
      ~Disarm() { work.disarm(); }
    } const disarm{*m_work};
    ready = poll(m_epoll.get(), events, timeoutMs);
  }
  return handleEvents(ready);
}

std::size_t Dispatcher::handleEvents(std::span<const epoll_event> events) {
  std::size_t done = 0;
  for (const epoll_event& event : events) {
    if (event.data.fd == m_wake.get()) {
      std::uint64_t ignored = 0;
      static_cast<void>(::read(m_wake.get(), &ignored, sizeof(ignored)));
    } else if (event.data.fd == m_work->descriptor()) {
      done += m_work->drain();
    } else {
      done += m_descriptors.ready(event.data.fd, event.events);
    }
  }
  return done;
}

void Dispatcher::end(Task last) {
  if (m_gate.dispatching()) {
    m_gate.shutDown();
    m_last = std::move(last);
    return;
  }
  std::unique_lock lock(m_occupancyMutex);
  m_gate.shutDown();
  wake();
  m_vacant.wait(lock, [this] { return !m_occupied; });
  m_occupied = true;
  lock.unlock();
  last();
  forget();
}

}  // namespace engine::core
