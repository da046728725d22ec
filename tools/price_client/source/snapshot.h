// What the client knows at one moment, as the views and reports show it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "feed/date.h"
#include "feed/price.h"
#include "feed/symbol.h"
#include "latency_histogram.h"

namespace price_client {

enum class InstanceState : std::uint8_t {
  kNeverSeen,
  kUp,
  kGone,  // every source that it had is gone
  kBack,  // up after it had been gone
};

const char* NameOf(InstanceState state);

struct SymbolSnapshot {
  feed::Symbol symbol;
  feed::Date date{};
  feed::Price price;
  feed::Price previousPrice;  // equal to price after the first update
  std::uint64_t updates = 0;

  double Change() const;
  // Per cent of the previous price; 0 when that was 0.
  double ChangePercent() const;
};

struct Totals {
  std::uint64_t updates = 0;
  std::uint64_t gaps = 0;       // places where updates are missing from a segment, or
                                // may be because the server restarted
  std::uint64_t missed = 0;     // updates known to be missing, by the application sequence
  std::uint64_t lost = 0;       // messages that the messaging library reported as lost
  std::uint64_t restarts = 0;   // changes of the server's session
  std::uint64_t malformed = 0;  // messages that are no price messages
  std::uint64_t untracked = 0;  // updates of symbols beyond those that are shown one by one
  std::int64_t firstAt = 0;     // arrival of the first and of the last update,
                                // nanoseconds since the epoch; 0: none
  std::int64_t lastAt = 0;
  LatencyDistribution latency;

  void Add(const Totals& other);

  // Updates a second between the first update and the last; 0 when there are
  // fewer than two.
  double Rate() const;

  bool HasGap() const { return gaps > 0 || lost > 0; }
};

struct InstanceSnapshot {
  std::string name;
  InstanceState state = InstanceState::kNeverSeen;
  unsigned segments = 0;
  unsigned liveSegments = 0;
  Totals totals;
  double currentRate = 0;               // updates a second since the snapshot before
  std::vector<SymbolSnapshot> symbols;  // in the order of their first updates
};

struct Snapshot {
  double elapsedSeconds = 0;
  std::vector<InstanceSnapshot> instances;

  Totals Total() const;
};

}  // namespace price_client
