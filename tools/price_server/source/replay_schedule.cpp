#include "replay_schedule.h"

#include <algorithm>

namespace price_server {

ReplaySchedule::ReplaySchedule(double updatesPerSecond, Clock::time_point start)
    : m_secondsPerUpdate(updatesPerSecond > 0 ? 1 / updatesPerSecond : 0), m_origin(start), m_nextDue(start) {}

void ReplaySchedule::Advance(Clock::time_point now) {
  if (m_secondsPerUpdate == 0) {
    return;
  }
  if (now - m_nextDue > kMaxLag) {
    m_origin = now;
    m_sentSinceOrigin = 0;
  }
  ++m_sentSinceOrigin;
  // Counted from the origin, so that rounding does not add up.
  constexpr double kLongest = 1e9;  // seconds, which the clock can still express
  const std::chrono::duration<double> sinceOrigin(
      std::min(static_cast<double>(m_sentSinceOrigin) * m_secondsPerUpdate, kLongest));
  m_nextDue = m_origin + std::chrono::duration_cast<Clock::duration>(sinceOrigin);
}

}  // namespace price_server
