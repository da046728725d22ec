// Signals that are meant for the process.
#pragma once

#include <signal.h>

namespace zq::posix {

// While it lives, the calling thread takes no signals but those of its own faults, and threads that it starts meanwhile
// never do: signals are for the application's threads, which may be waiting for them with sigwait.
class SignalBlocker {
 public:
  SignalBlocker() noexcept;
  ~SignalBlocker();
  SignalBlocker(const SignalBlocker&) = delete;
  SignalBlocker& operator=(const SignalBlocker&) = delete;

 private:
  sigset_t m_before{};
};

}  // namespace zq::posix
