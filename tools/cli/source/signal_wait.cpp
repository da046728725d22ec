#include "cli/signal_wait.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "zq/posix/error.h"

namespace cli {

int SignalWait::WaitUntil(Clock::time_point deadline, int input) {
  using namespace std::chrono;
  for (;;) {
    const auto left = std::max(deadline - Clock::now(), Clock::duration::zero());
    const auto wholeSeconds = duration_cast<seconds>(left);
    const timespec timeout{.tv_sec = wholeSeconds.count(), .tv_nsec = nanoseconds(left - wholeSeconds).count()};
    std::array<pollfd, 3> files{
        {{m_signals.GetDescriptor(), POLLIN, 0}, {m_wake.GetDescriptor(), POLLIN, 0}, {input, POLLIN, 0}}};
    const int ready = ::ppoll(files.data(), files.size(), &timeout, nullptr);
    if (ready < 0 && errno != EINTR) {
      zq::posix::ThrowErrno("cannot wait for signals");
    }
    if (const int signal = m_signals.Take()) {
      return signal;
    }
    if (ready == 0 || m_wake.Clear() || (ready > 0 && files[2].revents != 0)) {
      return 0;
    }
  }
}

}  // namespace cli
