#include "transport/host/link/retry_timer.h"

#include <sys/timerfd.h>

#include <cstdint>

#include "zq/posix/error.h"

namespace engine::transport::host {

namespace {

constexpr itimerspec kDelay{{}, {0, 50'000'000}};

}  // namespace

RetryTimer::RetryTimer(Poller& poller, Poller::Token token)
    : m_timer(
          zq::posix::Checked(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC), "cannot create a timer")) {
  poller.Add(m_timer.Get(), token, EPOLLIN);
}

void RetryTimer::Start() {
  if (::timerfd_settime(m_timer.Get(), 0, &kDelay, nullptr) != 0) {
    zq::posix::ThrowErrno("cannot set a timer");
  }
}

bool RetryTimer::TakeExpiry() noexcept {
  std::uint64_t expirations = 0;
  return ::read(m_timer.Get(), &expirations, sizeof(expirations)) == sizeof(expirations);
}

}  // namespace engine::transport::host
