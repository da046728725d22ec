#include "cli/signals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include "zq/posix/error.h"

namespace cli {
namespace {

bool IsIgnored(int signal) {
  struct sigaction action {};
  return ::sigaction(signal, nullptr, &action) == 0 && (action.sa_flags & SA_SIGINFO) == 0 &&
         action.sa_handler == SIG_IGN;
}

}  // namespace

Signals::Signals(std::initializer_list<int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : signals) {
    if (signal != SIGHUP || !IsIgnored(signal)) {
      sigaddset(&set, signal);
    }
  }
  if (const int error = ::pthread_sigmask(SIG_BLOCK, &set, nullptr)) {
    zq::posix::ThrowError(error, "cannot block signals");
  }
  ::signal(SIGPIPE, SIG_IGN);
  m_descriptor = zq::posix::Checked(::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC), "cannot watch for signals");
}

int Signals::Take() noexcept {
  signalfd_siginfo signal;
  const auto length = ::read(m_descriptor.Get(), &signal, sizeof signal);
  return length == sizeof signal ? static_cast<int>(signal.ssi_signo) : 0;
}

}  // namespace cli
