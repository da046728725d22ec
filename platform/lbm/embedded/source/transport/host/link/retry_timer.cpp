#include "transport/host/link/retry_timer.h"

#include <sys/timerfd.h>

#include <algorithm>
#include <cstdint>

#include "zq/posix/fork.h"

namespace engine::transport::host {

RetryTimer::RetryTimer(Poller& poller, Poller::Token token)
    : m_timer(zq::posix::Checked(
          zq::posix::OpenUnshared([] { return ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC); }),
          "cannot create a timer")) {
  poller.Add(m_timer.Get(), token, EPOLLIN);
}

void RetryTimer::Start(std::chrono::milliseconds delay) noexcept {
  using std::chrono::duration_cast;
  const std::lock_guard lock(m_mutex);
  const Clock::time_point due = Clock::now() + delay;
  if (due >= m_due) {
    return;
  }
  m_due = due;
  const auto seconds = duration_cast<std::chrono::seconds>(delay);
  // No time at all would stop the timer.
  const auto rest = std::max(std::chrono::nanoseconds(delay - seconds), std::chrono::nanoseconds(1));
  const itimerspec time{{}, {seconds.count(), rest.count()}};
  // With a time like this it cannot fail.
  static_cast<void>(::timerfd_settime(m_timer.Get(), 0, &time, nullptr));
}

bool RetryTimer::TakeExpiry() noexcept {
  const std::lock_guard lock(m_mutex);
  std::uint64_t expirations = 0;
  const bool expired = ::read(m_timer.Get(), &expirations, sizeof(expirations)) == sizeof(expirations);
  if (expired) {
    m_due = Clock::time_point::max();
  }
  return expired;
}

}  // namespace engine::transport::host
