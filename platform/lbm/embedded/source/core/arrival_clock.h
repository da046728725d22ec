// When what is being delivered arrived.
#pragma once

#include <time.h>

#include <optional>

namespace engine::core {

// Reads the clock once for everything that one drain delivers. Threads: the dispatching one only.
class ArrivalClock {
 public:
  // A drain begins.
  void Reset() noexcept { m_time.reset(); }

  // CLOCK_REALTIME as of the first call since then.
  timespec Now() noexcept {
    if (!m_time) {
      timespec now{};
      ::clock_gettime(CLOCK_REALTIME, &now);
      m_time = now;
    }
    return *m_time;
  }

 private:
  std::optional<timespec> m_time;
};

}  // namespace engine::core
