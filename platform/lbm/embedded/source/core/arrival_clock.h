// When what is being delivered arrived.
#pragma once

#include <ctime>
#include <optional>

#include "system/wall_clock.h"

namespace engine::core {

// Reads the clock once for everything that is delivered together. Threads: the dispatching one only.
class ArrivalClock {
 public:
  // What is delivered from now on has arrived now.
  void Reset() noexcept { m_time.reset(); }

  // CLOCK_REALTIME as of the first call since Reset.
  timespec Now() noexcept {
    if (!m_time) {
      m_time = m_clock.Now();
    }
    return *m_time;
  }

 private:
  WallClock m_clock;
  std::optional<timespec> m_time;
};

}  // namespace engine::core
