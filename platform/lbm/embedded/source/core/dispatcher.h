// The one place where a context's work is done: whoever is inside Process serves the transport, the registered
// descriptors, the timers and the tasks that other threads posted.
#pragma once

#include <lbm/lbm.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <span>

#include "core/adaptive_spin.h"
#include "core/arrival_clock.h"
#include "core/descriptors.h"
#include "core/membership.h"
#include "core/tasks.h"
#include "options/live_options.h"
#include "system/poller.h"
#include "transport/transport.h"
#include "zq/posix/event.h"

namespace engine::core {

class Dispatcher {
 public:
  using Clock = Timers::Clock;

  // What the dispatching thread works with; everything but the membership must outlive the dispatcher.
  struct Parts {
    std::shared_ptr<Membership> membership;
    transport::Listener& listener;  // of the membership's transport
    Timers& timers;
    ArrivalClock& arrivalClock;
    const LiveOptions& options;  // of the context: spin_time
    std::function<void()> room;  // see NoteRoom
    std::function<void()> last;  // see End; must not throw
  };

  explicit Dispatcher(const Parts& parts);

  // Does what there is to do; when that is nothing, waits up to msec milliseconds for something. Returns early after
  // Unblock, once. Throws Error when another thread is inside, or after End.
  //
  // Before it sleeps it spins for the option spin_time.
  //
  // Memory shared with peers is always polled. Descriptors, which take a system call, are always polled before
  // sleeping; otherwise (msec is 0, or there is no end of messages) always when the application has registered any, and
  // else once in kPollInterval. While it spins, those of the application are polled once in kSpinPollInterval, so that
  // they do not hold up messages.
  void Process(lbm_ulong_t msec);
  void Unblock();  // threads: any
  // Has the room function of the parts called on the dispatching thread. Threads: any.
  void NoteRoom() noexcept {
    m_room.store(true);
    m_wake.Notify();
  }

  static constexpr std::chrono::milliseconds kPollInterval{1};
  static constexpr std::chrono::microseconds kSpinPollInterval{5};

  // Runs the task on the dispatching thread, before it looks for other work. Tasks run in the order of their posting,
  // those posted after End never. One that throws is run again after a while, and those behind it wait. Threads: any.
  void Post(std::unique_ptr<Task> task) noexcept;

  // Ends all dispatching for good and calls the last function of the parts with nobody else inside. When the calling
  // thread is the one dispatching, that happens as soon as its present callback has returned; otherwise before End
  // returns. kept: held until then.
  void End(std::shared_ptr<const void> kept) noexcept;

  Descriptors& GetDescriptors() noexcept { return m_descriptors; }

 private:
  class Occupancy;

  bool Ended() const noexcept { return m_membership->Ended(); }
  // Whether a task that failed waits for the next attempt.
  bool Waiting() const noexcept { return m_nextAttempt != Clock::time_point(); }
  std::size_t RunTasks();
  void TellRoom();
  std::size_t RunWithoutSystemCalls();
  bool RunOnce();
  std::chrono::nanoseconds SpinTime();
  bool Spin(Clock::time_point begin, Clock::time_point end);
  void NoteSpin(bool found);
  void PollIfClockSeen();
  std::size_t PollIfDue(Clock::time_point now, Clock::duration registeredInterval);
  std::size_t Poll(int timeoutMs);
  std::size_t ParkAndPoll(int timeoutMs);
  std::size_t HandleEvents(std::span<const epoll_event> events);
  int RemainingMs(Clock::time_point deadline) const;
  void Vacate() noexcept;
  void NoteFailure(const std::exception& error) noexcept;
  void RunLast() noexcept;
  void Forget() noexcept;

  const std::shared_ptr<Membership> m_membership;
  transport::Transport& m_transport;  // the membership's
  transport::Listener& m_listener;
  Timers& m_timers;
  ArrivalClock& m_arrivalClock;
  const LiveOptions& m_options;
  const std::function<void()> m_onRoom;
  const std::function<void()> m_runLast;
  Poller m_poller;
  zq::posix::Event m_wake;
  Descriptors m_descriptors;
  TaskQueue m_tasks;
  std::atomic<bool> m_unblocked{false};
  std::atomic<bool> m_room{false};

  // The dispatching thread's own:
  std::size_t m_lastDone = 0;  // by the last RunOnce that did anything
  bool m_seesClock = true;     // this call of Process
  int m_callsBeforeClock = 0;  // until one that waits for nothing sees it again
  Clock::time_point m_lastClock;
  Clock::time_point m_lastPoll;
  Clock::time_point m_lastYield;
  Clock::time_point m_sleepEnd;                              // of the last ParkAndPoll, before what came was handled
  std::optional<AdaptiveSpin> m_adaptiveSpin;                // while spin_time is auto
  std::optional<std::shared_ptr<const void>> m_keptForLast;  // set by End on the dispatching thread
  TaskList m_taken;
  Clock::time_point m_nextAttempt;  // when the first of m_taken is due, once it has failed
  bool m_failureTold = false;       // since a task was done

  // Whether a thread is inside Process, or, in End, has taken its place for good.
  enum class Occupied : std::uint8_t { kNo, kYes, kYesAndAwaited };
  std::atomic<Occupied> m_occupied{Occupied::kNo};
};

}  // namespace engine::core
