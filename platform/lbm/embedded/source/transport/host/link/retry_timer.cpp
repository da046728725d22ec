#include "transport/host/link/retry_timer.h"

#include <sys/timerfd.h>

#include <cstdint>

#include "zq/posix/error.h"

namespace engine::transport::host {

namespace {

constexpr long kDelay = 50'000'000;  // nanoseconds

}  // namespace

RetryTimer::RetryTimer(Poller& poller, Poller::Token token)
    : m_timer(
          zq::posix::Checked(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC), "cannot create a timer")) {
  poller.Add(m_timer.Get(), token, EPOLLIN);
}

void RetryTimer::Start() {
  const std::lock_guard lock(m_mutex);
  if (!m_isDue) {
    Set(kDelay);
  }
}

void RetryTimer::StartNow() {
  const std::lock_guard lock(m_mutex);
  Set(1);
  m_isDue = true;
}

void RetryTimer::Set(long nanoseconds) {
  const itimerspec time{{}, {0, nanoseconds}};
  if (::timerfd_settime(m_timer.Get(), 0, &time, nullptr) != 0) {
    zq::posix::ThrowErrno("cannot set a timer");
  }
}

bool RetryTimer::TakeExpiry() noexcept {
  const std::lock_guard lock(m_mutex);
  std::uint64_t expirations = 0;
  const bool expired = ::read(m_timer.Get(), &expirations, sizeof(expirations)) == sizeof(expirations);
  m_isDue = m_isDue && !expired;
  return expired;
}

}  // namespace engine::transport::host
