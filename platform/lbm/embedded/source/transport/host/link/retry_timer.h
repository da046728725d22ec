// When to do what could not be done at once: for other threads at once, for the system that refused it after a while.
#pragma once

#include <mutex>

#include "system/poller.h"
#include "zq/posix/descriptor.h"

namespace engine::transport::host {

// A timer in a poller. Threads: any.
class RetryTimer {
 public:
  // Throws std::system_error.
  RetryTimer(Poller& poller, Poller::Token token);

  // Lets the timer go off some time from now, or now. Throw std::system_error.
  void Start();
  void StartNow();

  // False when the timer did not go off since the last call.
  bool TakeExpiry() noexcept;

 private:
  void Set(long nanoseconds);

  const zq::posix::Descriptor m_timer;
  std::mutex m_mutex;
  bool m_isDue = false;  // guarded by m_mutex
};

}  // namespace engine::transport::host
