#include "timer.h"

#include <sys/timerfd.h>

#include <algorithm>
#include <ctime>

#include "lbm/errors.h"

namespace lbm::details {

Timer::Timer(lbm_context_t* ctx, lbm_event_queue_t* evq, lbm_fd_cb_proc proc, void* clientd)
    : m_ctx(ctx),
      m_timer(
          zq::posix::Checked(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC), "cannot create a timer")) {
  ThrowIfFailed(lbm_register_fd(m_ctx, m_timer.Get(), proc, clientd, evq, LBM_FD_EVENT_READ),
                "Failed to register LBM timer");
}

Timer::~Timer() {
  if (Failed(lbm_cancel_fd(m_ctx, m_timer.Get(), LBM_FD_EVENT_READ))) {
    LogLbmError("Failed to cancel LBM timer");
  }
}

void Timer::Set(Clock::time_point due) noexcept {
  using std::chrono::nanoseconds;
  using std::chrono::seconds;
  itimerspec time{};  // zero disarms
  if (due != Clock::time_point::max()) {
    // The clock counts as CLOCK_MONOTONIC does.
    const nanoseconds since = std::max<nanoseconds>(due.time_since_epoch(), nanoseconds(1));
    const auto whole = std::chrono::duration_cast<seconds>(since);
    time.it_value.tv_sec = static_cast<std::time_t>(whole.count());
    time.it_value.tv_nsec = static_cast<long>((since - whole).count());
  }
  ::timerfd_settime(m_timer.Get(), TFD_TIMER_ABSTIME, &time, nullptr);  // also takes back that it is readable
}

}  // namespace lbm::details
