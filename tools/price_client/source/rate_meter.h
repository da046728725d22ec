// Adds rates to snapshots.
#pragma once

#include <chrono>
#include <deque>
#include <vector>

#include "snapshot.h"

namespace price_client {

// Adds to a snapshot what takes time to know: how long the client has run, the rate over the last second, and the
// latency over the last 10 s, which is up to a second longer.
class RateMeter {
 public:
  using Clock = std::chrono::steady_clock;

  explicit RateMeter(Clock::time_point start) : m_start(start) {}

  Clock::time_point Start() const { return m_start; }

  // The snapshots have the same instances in the same order each time.
  Snapshot Measure(Snapshot snapshot, Clock::time_point now);

 private:
  struct Reading {
    Clock::time_point at;
    std::vector<std::uint64_t> updates;
  };
  struct Latencies {
    Clock::time_point at;
    std::vector<LatencyHistogram> ofInstances;
  };
  static constexpr Clock::duration kWindow = std::chrono::seconds(1);
  static constexpr Clock::duration kLatencyWindow = std::chrono::seconds(10);
  static constexpr Clock::duration kLatencyStep = std::chrono::seconds(1);

  void MeasureLatency(std::vector<InstanceSnapshot>& instances, Clock::time_point now);

  Clock::time_point m_start;
  std::deque<Reading> m_readings;     // the first is the youngest that is a window old, while there is one
  std::deque<Latencies> m_latencies;  // likewise, a step apart
};

}  // namespace price_client
