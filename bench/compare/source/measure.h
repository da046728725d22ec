// The two measurements. Both run in processes of their own and return when those have ended; they throw when something
// fails or takes far longer than asked for.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "contender.h"

namespace compare {

struct RateSettings {
  std::size_t payload = 64;   // bytes
  std::size_t receivers = 1;  // processes, each subscribed to every topic that is sent on
  std::size_t topics = 1;     // that the publisher has and the receivers subscribe to
  bool spread = false;        // over all topics in turn, instead of on the first one
  std::size_t idlePeers = 0;  // further nodes, each subscribed to a topic of its own that nothing is sent on
  bool spin = false;          // receivers look again and again instead of waiting
  std::chrono::milliseconds warmUp{100};
  std::chrono::milliseconds duration{500};
};

struct RateResult {
  double slowest = 0;      // whole messages a second, of the receiver that got fewest
  double all = 0;          // of all receivers together
  std::uint64_t sent = 0;  // warm-up included
  std::uint64_t lost = 0;  // messages that receivers did not get, or not whole, of all receivers together
};

// A publisher that sends as fast as it is let.
RateResult MeasureRate(const Contender& contender, const RateSettings& settings);

struct RoundTripSettings {
  std::size_t payload = 64;
  bool spin = false;  // both sides
  std::chrono::milliseconds warmUp{100};
  std::chrono::milliseconds duration{500};
};

struct RoundTripResult {
  std::size_t count = 0;
  std::uint32_t p50 = 0, p99 = 0, p999 = 0, max = 0;  // nanoseconds
};

// One message at a time there and back between two processes, answered from within the delivery.
RoundTripResult MeasureRoundTrip(const Contender& contender, const RoundTripSettings& settings);

}  // namespace compare
