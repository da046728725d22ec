#include "cli/signal_wait.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <system_error>

namespace cli {
namespace {

bool IsIgnored(int signal) {
  struct sigaction action {};
  return ::sigaction(signal, nullptr, &action) == 0 && (action.sa_flags & SA_SIGINFO) == 0 &&
         action.sa_handler == SIG_IGN;
}

}  // namespace

SignalWait::SignalWait(std::initializer_list<int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : signals) {
    if (signal != SIGHUP || !IsIgnored(signal)) {
      sigaddset(&set, signal);
    }
  }
  if (const int error = ::pthread_sigmask(SIG_BLOCK, &set, nullptr)) {
    throw std::system_error(error, std::generic_category(), "pthread_sigmask");
  }
  ::signal(SIGPIPE, SIG_IGN);
  m_signals = ::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
  if (m_signals < 0) {
    throw std::system_error(errno, std::generic_category(), "signalfd");
  }
  m_wakes = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (m_wakes < 0) {
    const int error = errno;
    ::close(m_signals);
    throw std::system_error(error, std::generic_category(), "eventfd");
  }
}

SignalWait::~SignalWait() {
  ::close(m_wakes);
  ::close(m_signals);
}

int SignalWait::WaitUntil(Clock::time_point deadline) {
  using namespace std::chrono;
  for (;;) {
    const auto left = std::max(deadline - Clock::now(), Clock::duration::zero());
    const auto wholeSeconds = duration_cast<seconds>(left);
    const timespec timeout{.tv_sec = wholeSeconds.count(), .tv_nsec = nanoseconds(left - wholeSeconds).count()};
    std::array<pollfd, 2> files{{{m_signals, POLLIN, 0}, {m_wakes, POLLIN, 0}}};
    const int ready = ::ppoll(files.data(), files.size(), &timeout, nullptr);
    if (ready == 0) {
      return 0;
    }
    if (ready < 0 && errno != EINTR) {
      throw std::system_error(errno, std::generic_category(), "ppoll");
    }
    signalfd_siginfo signal;
    if (::read(m_signals, &signal, sizeof signal) == sizeof signal) {
      return static_cast<int>(signal.ssi_signo);
    }
    std::uint64_t wakes = 0;
    if (::read(m_wakes, &wakes, sizeof wakes) == sizeof wakes) {
      return 0;
    }
  }
}

void SignalWait::Wake() noexcept {
  constexpr std::uint64_t kOne = 1;
  // Fails only when so many wakes are pending that one more makes no difference.
  [[maybe_unused]] const auto written = ::write(m_wakes, &kOne, sizeof kOne);
}

}  // namespace cli
