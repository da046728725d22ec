// Waiting for time to pass, a signal to come or another thread to call, whichever is first.
#pragma once

#include <signal.h>

#include <chrono>
#include <initializer_list>

namespace cli {

// Keeps signals from interrupting anything: from construction on they are blocked on this thread and on all threads
// that it starts, and are only seen by WaitUntil. They stay blocked when the object is gone, so that an impatient
// second Ctrl-C does not cut an orderly end short. SIGHUP is left alone when it is ignored, as under nohup. SIGPIPE
// becomes ignored: a closed standard output is an error of the write.
//
// Threads: construct before other threads are started; wait on one thread; Wake on any.
class SignalWait {
 public:
  using Clock = std::chrono::steady_clock;

  // Throws std::system_error.
  explicit SignalWait(std::initializer_list<int> signals);
  ~SignalWait();

  SignalWait(const SignalWait&) = delete;
  SignalWait& operator=(const SignalWait&) = delete;

  // Returns the signal that came, or 0 once the deadline has passed or Wake was called. With a deadline in the past it
  // does not wait.
  int WaitUntil(Clock::time_point deadline);

  // Ends the present wait, or the next one if there is none. Never blocks.
  void Wake() noexcept;

 private:
  int m_signals = -1;  // descriptors: readable when a signal has come, or when Wake was called
  int m_wakes = -1;
};

// Whether the signal asks for an orderly end.
constexpr bool AsksToStop(int signal) { return signal == SIGINT || signal == SIGTERM || signal == SIGHUP; }

}  // namespace cli
