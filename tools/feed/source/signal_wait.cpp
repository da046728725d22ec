#include "feed/signal_wait.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace feed {
namespace {

bool IsIgnored(int signal) {
  struct sigaction action {};
  return ::sigaction(signal, nullptr, &action) == 0 && (action.sa_flags & SA_SIGINFO) == 0 &&
         action.sa_handler == SIG_IGN;
}

}  // namespace

SignalWait::SignalWait(std::initializer_list<int> signals) {
  sigemptyset(&m_signals);
  for (const int signal : signals) {
    if (signal != SIGHUP || !IsIgnored(signal)) sigaddset(&m_signals, signal);
  }
  if (const int error = ::pthread_sigmask(SIG_BLOCK, &m_signals, nullptr)) {
    throw std::system_error(error, std::generic_category(), "pthread_sigmask");
  }
  ::signal(SIGPIPE, SIG_IGN);
}

int SignalWait::WaitUntil(Clock::time_point deadline) {
  using namespace std::chrono;
  for (;;) {
    const auto left = std::max(deadline - Clock::now(), Clock::duration::zero());
    const auto wholeSeconds = duration_cast<seconds>(left);
    const timespec timeout{.tv_sec = wholeSeconds.count(), .tv_nsec = nanoseconds(left - wholeSeconds).count()};
    const int signal = ::sigtimedwait(&m_signals, nullptr, &timeout);
    if (signal > 0) return signal;
    if (errno == EAGAIN) return 0;
    if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "sigtimedwait");
  }
}

}  // namespace feed
