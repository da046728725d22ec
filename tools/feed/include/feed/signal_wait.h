// Waiting for time to pass or a signal to come, whichever is first.
#pragma once

#include <signal.h>

#include <chrono>
#include <initializer_list>

namespace feed {

// Keeps signals from interrupting anything: from construction on they are blocked on this thread and on all threads
// that it starts, and are only seen by WaitUntil. They stay blocked when the object is gone, so that an impatient
// second Ctrl-C does not cut an orderly end short. SIGHUP is left alone when it is ignored, as under nohup. SIGPIPE
// becomes ignored: a closed standard output is an error of the write.
//
// Threads: construct before other threads are started; wait on one thread.
class SignalWait {
 public:
  using Clock = std::chrono::steady_clock;

  explicit SignalWait(std::initializer_list<int> signals);

  // Returns the signal that came, or 0 once the deadline has passed. With a deadline in the past it does not wait.
  int WaitUntil(Clock::time_point deadline);

 private:
  sigset_t m_signals;
};

// Whether the signal asks for an orderly end.
constexpr bool AsksToStop(int signal) { return signal == SIGINT || signal == SIGTERM || signal == SIGHUP; }

}  // namespace feed
