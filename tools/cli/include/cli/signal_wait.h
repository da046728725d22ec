// Waiting for time to pass, a signal to come or another thread to call, whichever is first.
#pragma once

#include <chrono>
#include <initializer_list>

#include "cli/signals.h"
#include "zq/posix/event.h"

namespace cli {

// Threads: construct as Signals say; wait on one thread; Wake on any.
class SignalWait {
 public:
  using Clock = std::chrono::steady_clock;

  // Throws std::system_error.
  explicit SignalWait(std::initializer_list<int> signals) : m_signals(signals) {}

  // Returns the signal that came, or 0 once the deadline has passed, Wake was called or, where one is given, input can
  // be read or has ended. With a deadline in the past it does not wait.
  int WaitUntil(Clock::time_point deadline, int input = -1);

  // Readable when a signal has come.
  int GetDescriptor() const noexcept { return m_signals.GetDescriptor(); }

  // Ends the present wait, or the next one if there is none. Never blocks.
  void Wake() noexcept { m_wake.Notify(); }

 private:
  Signals m_signals;
  zq::posix::Event m_wake;
};

}  // namespace cli
