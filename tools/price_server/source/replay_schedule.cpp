#include "replay_schedule.h"

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
  const std::chrono::duration<double> sinceOrigin(static_cast<double>(m_sentSinceOrigin) * m_secondsPerUpdate);
  m_nextDue = m_origin + std::chrono::duration_cast<Clock::duration>(sinceOrigin);
}

}  // namespace price_server
