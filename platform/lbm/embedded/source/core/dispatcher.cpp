#include "core/dispatcher.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "options/option_keys.h"
#include "system/error.h"
#include "system/processor.h"

namespace engine::core {

namespace {

// Tokens beyond those of the application's descriptors.
constexpr Poller::Token kWakeToken = Poller::Token{1} << 32;
constexpr Poller::Token kTransportToken = kWakeToken + 1;

}  // namespace

// The calling thread is the one inside Process while it lives.
class Dispatcher::Occupancy {
 public:
  explicit Occupancy(Dispatcher& dispatcher) : m_dispatcher(dispatcher) {
    const std::lock_guard lock(m_dispatcher.m_occupancyMutex);
    if (m_dispatcher.Ended()) {
      throw Error(LBM_EOP, "the context is deleted");
    }
    if (std::exchange(m_dispatcher.m_occupied, true)) {
      throw Error(LBM_EOP, "another thread is processing this context's events");
    }
  }
  ~Occupancy() {
    {
      const std::lock_guard lock(m_dispatcher.m_occupancyMutex);
      m_dispatcher.m_occupied = false;
    }
    m_dispatcher.m_vacant.notify_all();
  }
  Occupancy(const Occupancy&) = delete;
  Occupancy& operator=(const Occupancy&) = delete;

 private:
  Dispatcher& m_dispatcher;
};

Dispatcher::Dispatcher(const Parts& parts)
    : m_membership(parts.membership),
      m_transport(parts.membership->GetTransport()),
      m_listener(parts.listener),
      m_timers(parts.timers),
      m_arrivalClock(parts.arrivalClock),
      m_options(parts.options),
      m_descriptors(m_poller, parts.membership) {
  m_poller.Add(m_wake.GetDescriptor(), kWakeToken, EPOLLIN);
  m_poller.Add(m_transport.GetDescriptor(), kTransportToken, EPOLLIN);
}

void Dispatcher::Process(lbm_ulong_t msec) {
  const Occupancy occupancy(*this);
  const CallbackGate::Scope scope(m_membership->Gate());
  zq::statistics::Row& counters = m_membership->Statistics().Counters();
  struct Last {
    Dispatcher& dispatcher;
    ~Last() { dispatcher.RunLast(); }
  } const last{*this};

  std::optional<Clock::time_point> deadline;
  std::optional<Clock::time_point> spinDeadline;
  while (true) {
    counters.Serial().Add(context_field::kPasses);
    const std::size_t done = RunWithoutSystemCalls();
    const bool unblocked = m_unblocked.load(std::memory_order_relaxed) && m_unblocked.exchange(false);
    if (done != 0 || unblocked || Ended() || msec == 0) {
      PollIfDue();
      return;
    }
    const Clock::time_point now = Clock::now();
    if (!deadline) {
      // Far enough for any purpose, near enough for the clock's arithmetic.
      constexpr lbm_ulong_t kLongest = 1000UL * 60 * 60 * 24 * 365;
      deadline = now + std::chrono::milliseconds(std::min(msec, kLongest));
      spinDeadline = std::min(*deadline, now + std::chrono::microseconds(m_options.Get(option::kSpinTime)));
    }
    if (now < *spinDeadline) {
      if (PollIfDue() != 0) {
        return;
      }
      SpinPause();
      continue;
    }
    const int timeoutMs = RemainingMs(*deadline);
    if (ParkAndPoll(timeoutMs) != 0 || Ended() || timeoutMs == 0) {
      return;
    }
  }
}

std::size_t Dispatcher::RunWithoutSystemCalls() {
  m_arrivalClock.Reset();
  std::size_t done = RunTasks();
  done += m_timers.RunDue();
  return done + m_transport.DrainMemory(m_listener);
}

std::size_t Dispatcher::RunTasks() {
  const std::vector<Task> tasks = m_tasks.Take();
  for (const Task& task : tasks) {
    if (Ended()) {
      break;
    }
    task();
  }
  return tasks.size();
}

// What takes a system call to look at. Everything but registered descriptors can wait for kPollInterval.
std::size_t Dispatcher::PollIfDue() {
  if (m_descriptors.Empty()) {
    const Clock::time_point now = Clock::now();
    if (now < m_nextPoll) {
      return 0;
    }
    m_nextPoll = now + kPollInterval;
  }
  return Poll(0);
}

std::size_t Dispatcher::Poll(int timeoutMs) {
  Poller::Events storage;
  return HandleEvents(m_poller.Poll(storage, timeoutMs));
}

// The same, waiting until something arrives in memory, too.
std::size_t Dispatcher::ParkAndPoll(int timeoutMs) {
  if (!m_transport.Park()) {
    return 0;
  }
  zq::statistics::Row& counters = m_membership->Statistics().Counters();
  Poller::Events storage;
  std::span<const epoll_event> ready;
  {
    struct Unpark {
      transport::Transport& transport;
      ~Unpark() { transport.Unpark(); }
    } const unpark{m_transport};
    counters.Set(context_field::kWaiting, 1);
    ready = m_poller.Poll(storage, timeoutMs);
    counters.Set(context_field::kWaiting, 0);
  }
  if (!ready.empty()) {
    counters.Serial().Add(context_field::kWakeups);
  }
  return HandleEvents(ready);
}

std::size_t Dispatcher::HandleEvents(std::span<const epoll_event> events) {
  std::size_t done = 0;
  for (const epoll_event& event : events) {
    if (event.data.u64 == kWakeToken) {
      m_wake.Clear();
    } else if (event.data.u64 == kTransportToken) {
      m_arrivalClock.Reset();
      done += m_transport.Drain(m_listener);
    } else {
      done += m_descriptors.Ready(static_cast<int>(event.data.u64), event.events);
    }
  }
  return done;
}

int Dispatcher::RemainingMs(Clock::time_point deadline) const {
  const Clock::time_point first = std::min(deadline, m_timers.NextDue().value_or(deadline));
  const auto remaining = std::chrono::ceil<std::chrono::milliseconds>(first - Clock::now()).count();
  return static_cast<int>(std::clamp<std::int64_t>(remaining, 0, INT_MAX));
}

void Dispatcher::Unblock() {
  m_unblocked.store(true);
  m_wake.Notify();
}

void Dispatcher::Post(Task task) {
  if (m_tasks.Post(std::move(task))) {
    m_wake.Notify();
  }
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
  m_tasks.Close();
  m_timers.Clear();
}

void Dispatcher::End(Task last) {
  CallbackGate& gate = m_membership->Gate();
  if (gate.Dispatching()) {
    gate.ShutDown();
    m_last = std::move(last);
    return;
  }
  std::unique_lock lock(m_occupancyMutex);
  gate.ShutDownAwaited();
  m_wake.Notify();
  m_vacant.wait(lock, [this] { return !m_occupied; });
  m_occupied = true;
  lock.unlock();
  last();
  Forget();
}

}  // namespace engine::core
