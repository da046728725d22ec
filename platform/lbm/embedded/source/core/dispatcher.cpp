#include "core/dispatcher.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <thread>
#include <utility>

#include "core/notice.h"
#include "options/option_keys.h"
#include "system/error.h"
#include "system/processor.h"
#include "system/wake_up_cost.h"

namespace engine::core {

namespace {

// Tokens beyond those of the application's descriptors.
constexpr Poller::Token kWakeToken = Poller::Token{1} << 32;
constexpr Poller::Token kTransportToken = kWakeToken + 1;

// How often a context that spins in a stream, where messages come several at a time, lets threads run that share its
// processor: the source, or other receivers of the stream for which the source waits. Parking does that for contexts
// that do not spin. A context to which one message comes at a time does not yield, since a neighbour that computes
// would keep the processor.
constexpr std::chrono::microseconds kYieldInterval{50};

}  // namespace

// The calling thread is the one inside Process while it lives.
class Dispatcher::Occupancy {
 public:
  explicit Occupancy(Dispatcher& dispatcher) : m_dispatcher(dispatcher) {
    Occupied expected = Occupied::kNo;
    const bool entered = m_dispatcher.m_occupied.compare_exchange_strong(expected, Occupied::kYes);
    if (m_dispatcher.Ended()) {
      if (entered) {
        m_dispatcher.Vacate();
      }
      throw Error(LBM_EOP, "the context is deleted");
    }
    if (!entered) {
      throw Error(LBM_EOP, "another thread is processing this context's events");
    }
  }
  ~Occupancy() { m_dispatcher.Vacate(); }
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
      m_onRoom(parts.room),
      m_runLast(parts.last),
      m_descriptors(m_poller, parts.membership) {
  m_poller.Add(m_wake.GetDescriptor(), kWakeToken, EPOLLIN);
  m_poller.Add(m_transport.GetDescriptor(), kTransportToken, EPOLLIN);
}

void Dispatcher::Process(lbm_ulong_t msec) {
  const Occupancy occupancy(*this);
  const CallbackGate::Scope scope(m_membership->Gate());
  struct Last {
    Dispatcher& dispatcher;
    ~Last() { dispatcher.RunLast(); }
  } const last{*this};

  // The clock takes as long as all other looks together, so those who do not wait look at it once in a few calls while
  // these come fast.
  m_seesClock = msec != 0 || !m_descriptors.Empty() || --m_callsBeforeClock <= 0;
  if (RunOnce()) {
    return;
  }
  if (msec == 0) {
    PollIfClockSeen();
    return;
  }
  const Clock::time_point begin = Clock::now();
  // Far enough for any purpose, near enough for the clock's arithmetic.
  constexpr lbm_ulong_t kLongest = 1000UL * 60 * 60 * 24 * 365;
  const Clock::time_point deadline = begin + std::chrono::milliseconds(std::min(msec, kLongest));
  const std::chrono::nanoseconds spinTime = SpinTime();
  const bool spins = spinTime != spinTime.zero();
  if (spins && Spin(begin, std::min(deadline, begin + spinTime))) {
    return;
  }
  while (true) {
    const int timeoutMs = RemainingMs(deadline);
    const std::size_t done = ParkAndPoll(timeoutMs);
    const Clock::duration slept = m_sleepEnd - begin;
    const bool goesOn = timeoutMs != 0 && !Ended();
    const bool found = done != 0 || (goesOn && RunOnce());
    if (found || !goesOn) {
      if (m_adaptiveSpin && !spins) {
        m_adaptiveSpin->NoteSleep(found, slept);
      }
      return;
    }
  }
}

// Whether that ends the call.
bool Dispatcher::RunOnce() {
  m_membership->Statistics().Counters().Serial().Add(context_field::kPasses);
  const std::size_t done = RunWithoutSystemCalls();
  const bool unblocked = m_unblocked.load(std::memory_order_relaxed) && m_unblocked.exchange(false);
  if (done == 0 && !unblocked && !Ended()) {
    return false;
  }
  m_lastDone = done;
  PollIfClockSeen();
  return true;
}

std::chrono::nanoseconds Dispatcher::SpinTime() {
  std::chrono::nanoseconds time{};
  if (const std::uint32_t option = m_options.Get(option::kSpinTime); option != kAuto) {
    m_adaptiveSpin.reset();
    time = std::chrono::microseconds(option);
  } else {
    if (!m_adaptiveSpin) {
      m_adaptiveSpin.emplace(WakeUpCost());
    }
    time = m_adaptiveSpin->Time();
  }
  m_membership->Statistics().Counters().Set(context_field::kSpinTime, time.count());
  return time;
}

// Whether something ended the call meanwhile.
bool Dispatcher::Spin(Clock::time_point begin, Clock::time_point end) {
  if (m_adaptiveSpin && m_lastDone > 1 && begin - std::max(m_lastYield, m_sleepEnd) >= kYieldInterval) {
    m_lastYield = begin;
    std::this_thread::yield();
    if (RunOnce()) {
      return true;
    }
  }
  for (Clock::time_point now = begin; now < end; now = Clock::now()) {
    if (PollIfDue(now, kSpinPollInterval) != 0) {
      NoteSpin(true);
      return true;
    }
    SpinPause();
    if (RunOnce()) {
      NoteSpin(true);
      return true;
    }
  }
  NoteSpin(false);
  return false;
}

void Dispatcher::NoteSpin(bool found) {
  m_membership->Statistics().Counters().Serial().Add(found ? context_field::kSpinsFound : context_field::kSpinsInVain);
  if (m_adaptiveSpin) {
    m_adaptiveSpin->NoteSpin(found);
  }
}

std::size_t Dispatcher::RunWithoutSystemCalls() {
  m_arrivalClock.Reset();
  std::size_t done = RunTasks();
  TellRoom();
  if (m_seesClock) {
    done += m_timers.RunDue();
  }
  return done + m_transport.DrainMemory(m_listener);
}

void Dispatcher::TellRoom() {
  if (!m_room.load(std::memory_order_relaxed) || !m_room.exchange(false)) {
    return;
  }
  try {
    m_onRoom();
  } catch (...) {
    m_room.store(true);
    throw;
  }
}

std::size_t Dispatcher::RunTasks() {
  if (m_tasks.Posted()) {
    m_taken.Append(m_tasks.Take());
  }
  if (m_taken.Empty() || (Waiting() && Clock::now() < m_nextAttempt)) {
    return 0;
  }
  std::size_t done = 0;
  for (std::unique_ptr<Task> task; !Ended() && (task = m_taken.Take()) != nullptr; ++done) {
    try {
      task->Run(task);
      m_nextAttempt = {};
      m_failureTold = false;
    } catch (const std::exception& error) {
      m_taken.PutBack(std::move(task));
      NoteFailure(error);
      break;
    }
  }
  return done;
}

void Dispatcher::NoteFailure(const std::exception& error) noexcept {
  m_nextAttempt = Clock::now() + Timers::kRetryDelay;
  if (!std::exchange(m_failureTold, true)) {
    Notice(LBM_LOG_WARNING, "what was asked of a context cannot be done yet: ", error);
  }
}

void Dispatcher::PollIfClockSeen() {
  constexpr int kCalls = 8;
  constexpr std::chrono::microseconds kFast{8};
  if (m_seesClock) {
    const Clock::time_point now = Clock::now();
    m_callsBeforeClock = now - std::exchange(m_lastClock, now) < kFast ? kCalls : 1;
    PollIfDue(now, Clock::duration::zero());
  }
}

// What takes a system call to look at. Registered descriptors can wait for their interval, all else for kPollInterval.
std::size_t Dispatcher::PollIfDue(Clock::time_point now, Clock::duration registeredInterval) {
  if (now - m_lastPoll < (m_descriptors.Empty() ? kPollInterval : registeredInterval)) {
    return 0;
  }
  m_lastPoll = now;
  return Poll(0);
}

std::size_t Dispatcher::Poll(int timeoutMs) {
  Poller::Events storage;
  return HandleEvents(m_poller.Poll(storage, timeoutMs));
}

// The same, waiting until something arrives in memory, too.
std::size_t Dispatcher::ParkAndPoll(int timeoutMs) {
  if (!m_transport.Park()) {
    m_sleepEnd = Clock::now();
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
  m_sleepEnd = Clock::now();
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
  Clock::time_point first = std::min(deadline, m_timers.NextDue().value_or(deadline));
  if (Waiting()) {
    first = std::min(first, m_nextAttempt);
  }
  const auto remaining = std::chrono::ceil<std::chrono::milliseconds>(first - Clock::now()).count();
  return static_cast<int>(std::clamp<std::int64_t>(remaining, 0, INT_MAX));
}

void Dispatcher::Unblock() {
  m_unblocked.store(true);
  m_wake.Notify();
}

void Dispatcher::Post(std::unique_ptr<Task> task) noexcept {
  if (m_tasks.Post(std::move(task))) {
    m_wake.Notify();
  }
}

void Dispatcher::RunLast() noexcept {
  if (const auto kept = std::exchange(m_keptForLast, std::nullopt)) {
    m_runLast();
    Forget();
  }
}

// Tasks may own what owns this dispatcher: they must not wait for its end.
void Dispatcher::Forget() noexcept {
  m_tasks.Close();
  m_taken.Clear();
}

void Dispatcher::Vacate() noexcept {
  if (m_occupied.exchange(Occupied::kNo) == Occupied::kYesAndAwaited) {
    m_occupied.notify_all();
  }
}

void Dispatcher::End(std::shared_ptr<const void> kept) noexcept {
  CallbackGate& gate = m_membership->Gate();
  if (gate.Dispatching()) {
    gate.ShutDown();
    m_keptForLast = std::move(kept);
    return;
  }
  gate.ShutDownAwaited();
  m_wake.Notify();
  Occupied seen = Occupied::kNo;
  while (!m_occupied.compare_exchange_strong(seen, Occupied::kYes)) {
    if (seen == Occupied::kYes) {
      m_occupied.compare_exchange_strong(seen, Occupied::kYesAndAwaited);
    }
    m_occupied.wait(Occupied::kYesAndAwaited);
    seen = Occupied::kNo;
  }
  m_runLast();
  Forget();
}

}  // namespace engine::core
