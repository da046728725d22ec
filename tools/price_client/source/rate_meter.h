// Adds rates to snapshots.
#pragma once

#include <chrono>
#include <deque>
#include <vector>

#include "snapshot.h"

namespace price_client {

// Adds to a snapshot what takes time to know: how long the client has run, and the rate over the last second.
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
  static constexpr Clock::duration kWindow = std::chrono::seconds(1);

  Clock::time_point m_start;
  std::deque<Reading> m_readings;  // the first is the youngest that is a window old, while there is one
};

}  // namespace price_client
