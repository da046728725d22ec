// The measurements. Each runs in processes of its own and returns when those have ended; it throws when something fails
// or takes far longer than asked for.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "contender.h"

namespace compare {

struct RateSettings {
  std::size_t payload = 64;   // bytes
  std::size_t receivers = 1;  // processes, each subscribed to every topic that is sent on
  std::size_t topics = 1;     // that the publisher has and the receivers subscribe to
  bool spread = false;        // over all topics in turn, instead of on the first one
  std::size_t idlePeers = 0;  // further nodes, each subscribed to a topic of its own that nothing is sent on
  bool spin = false;          // receivers look again and again instead of waiting
  std::size_t threads = 1;    // of the publisher; when there are several, each sends on a topic of its own
  bool ownNodes = false;      // one for each thread of the publisher, instead of one for all
  bool pinned = true;         // whether contenders that ask for it are held on one processor a process
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

struct LoadSettings {
  std::size_t payload = 64;
  std::uint64_t rate = 10'000;              // messages a second
  std::uint64_t burst = 1;                  // messages that are due at once; the bursts are spaced for the same rate
  bool spin = false;                        // the receiver looks again and again instead of waiting
  std::chrono::milliseconds duration{400};  // and a quarter of it before, in which messages are sent but do not count
};

// Of the messages that count.
struct LoadResult {
  std::uint64_t sent = 0, received = 0;
  std::uint64_t unsent = 0;  // were due by the end too: the publisher did not hold the rate
  double rate = 0;           // messages a second that the publisher really sent
  // Nanoseconds from when a message was due to its receipt. p99.99 is there if enough arrived.
  std::uint64_t p50 = 0, p90 = 0, p99 = 0, p999 = 0, max = 0;
  std::optional<std::uint64_t> p9999;
  std::vector<std::pair<double, std::uint64_t>> curve;  // one message in so many took longer than that
  std::uint64_t lateP50 = 0, lateP99 = 0;               // nanoseconds from when a message was due to its sending
  // Of a processor. The publisher's without what it spins until a message is due.
  double publisherPercent = 0, receiverPercent = 0;
  std::optional<double> serverPercent;  // if there is a server
};

// A publisher that sends by the clock, whatever happens. What holds it up makes all messages late that are due
// meanwhile.
LoadResult MeasureLoad(const Contender& contender, const LoadSettings& settings);

}  // namespace compare
