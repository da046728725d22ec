// When each update of a replay is due.
#pragma once

#include <chrono>
#include <cstdint>

namespace price_server {

// Spreads updates evenly over time. An update that was sent late does not delay
// the following ones, so the rate holds on average; but after a stall longer
// than kMaxLag the schedule moves on instead of flooding everybody with what
// was missed.
class ReplaySchedule {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr Clock::duration kMaxLag = std::chrono::seconds(1);

  // The first update is due at start. A rate of 0 stands for "as fast as
  // possible".
  ReplaySchedule(double updatesPerSecond, Clock::time_point start);

  Clock::time_point NextDue() const { return m_nextDue; }

  // Notes that the update that was due has been sent at now.
  void Advance(Clock::time_point now);

 private:
  double m_secondsPerUpdate;  // 0: unpaced
  Clock::time_point m_origin;
  std::uint64_t m_sentSinceOrigin = 0;
  Clock::time_point m_nextDue;
};

}  // namespace price_server
