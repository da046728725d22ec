// When to do what could not be done at once: for other threads at once, for the system that refused it after a while.
#pragma once

#include <chrono>
#include <mutex>

#include "system/poller.h"
#include "zq/posix/descriptor.h"

namespace engine::transport::host {

// A timer in a poller. Threads: any.
class RetryTimer {
 public:
  static constexpr std::chrono::milliseconds kDelay{50};

  // Throws std::system_error.
  RetryTimer(Poller& poller, Poller::Token token);

  // Lets the timer go off that long from now, unless it will do so before, or now.
  void Start(std::chrono::milliseconds delay = kDelay) noexcept;
  void StartNow() noexcept { Start(std::chrono::milliseconds(0)); }

  // False when the timer did not go off since the last call.
  bool TakeExpiry() noexcept;

 private:
  using Clock = std::chrono::steady_clock;

  const zq::posix::Descriptor m_timer;
  std::mutex m_mutex;
  Clock::time_point m_due = Clock::time_point::max();  // guarded by m_mutex
};

}  // namespace engine::transport::host
