#include "zq/posix/signals.h"

#include <initializer_list>

namespace zq::posix {

SignalBlocker::SignalBlocker() noexcept {
  sigset_t blocked;
  ::sigfillset(&blocked);
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS}) {
    ::sigdelset(&blocked, fault);
  }
  ::pthread_sigmask(SIG_SETMASK, &blocked, &m_before);
}

SignalBlocker::~SignalBlocker() { ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }

}  // namespace zq::posix
