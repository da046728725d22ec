// When to try again what the system refused for the moment.
#pragma once

#include "system/poller.h"
#include "zq/posix/descriptor.h"

namespace engine::transport::host {

// A timer in a poller. Threads: one at a time.
class RetryTimer {
 public:
  // Throws std::system_error.
  RetryTimer(Poller& poller, Poller::Token token);

  // Lets the timer go off soon, some time from now. Throws std::system_error.
  void Start();

  // False when the timer did not go off since the last call.
  bool TakeExpiry() noexcept;

 private:
  zq::posix::Descriptor m_timer;
};

}  // namespace engine::transport::host
