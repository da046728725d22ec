// What the client knows at one moment, as the views and reports show it.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "feed/date.h"
#include "feed/news.h"
#include "feed/price.h"
#include "feed/product_info.h"
#include "feed/request_for_quote.h"
#include "feed/server_status.h"
#include "feed/symbol.h"
#include "latency_histogram.h"

namespace price_client {

enum class InstanceState : std::uint8_t {
  kNeverSeen,
  kUp,
  kGone,  // every source that it had is gone
  kBack,  // up after it had been gone
};

constexpr bool IsAlive(InstanceState state) { return state == InstanceState::kUp || state == InstanceState::kBack; }

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
  std::uint64_t gaps = 0;       // places where updates are missing from a segment, or may be: the server restarted
  std::uint64_t missed = 0;     // updates known to be missing, by the application sequence
  std::uint64_t lost = 0;       // messages that the messaging library reported as lost
  std::uint64_t restarts = 0;   // changes of the server's session
  std::uint64_t malformed = 0;  // messages that are not what their topic carries
  std::uint64_t untracked = 0;  // updates of symbols beyond those that are shown one by one
  std::int64_t firstAt = 0;     // arrival of the first and of the last update, nanoseconds since the epoch; 0: none
  std::int64_t lastAt = 0;
  LatencyHistogram latency;

  void Add(const Totals& other);

  // Updates a second between the first update and the last; 0 when there are fewer than two.
  double Rate() const;

  bool HasGap() const { return gaps > 0 || lost > 0; }
};

// What a server's status says.
struct StatusSnapshot {
  feed::ServerStatus last;
  double ageSeconds = 0;  // since it came
  bool isSilent = false;  // the server is up, and its next status is overdue
};

// What a server has told besides prices and status.
struct NoticesSnapshot {
  std::vector<feed::ProductInfo> products;  // in the order in which they became known
  std::uint64_t rfqs = 0;                   // requests for quotes
  std::uint64_t news = 0;
  std::optional<feed::RequestForQuote> lastRfq;
  std::optional<feed::News> lastNews;
  std::uint64_t malformed = 0;  // messages that are not what their topic carries, status included
  std::uint64_t lost = 0;       // messages that the messaging library reported as lost
};

// What prices tell.
struct PricesSnapshot {
  unsigned liveSegments = 0;
  Totals totals;
  std::vector<SymbolSnapshot> symbols;  // in the order of their first updates
};

struct InstanceSnapshot : PricesSnapshot {
  std::string name;
  InstanceState state = InstanceState::kNeverSeen;
  unsigned segments = 0;
  double currentRate = 0;                 // updates a second, over the last one
  std::optional<StatusSnapshot> status;   // the last one since the instance came up last
  NoticesSnapshot notices;                // malformed and lost are part of the totals as well
  LatencyHistogram recentLatency;         // over the last 10 s
  std::set<unsigned> unreceivedSegments;  // that products name, and that are not received

  // The server is gone, and has said before that it would go.
  bool HasClosedInOrder() const {
    return state == InstanceState::kGone && status && status->last.state == feed::ServerState::kClosing;
  }
};

// The client itself.
struct ClientSnapshot {
  std::string id;
  std::string host;
  std::string directory;  // in which servers are looked for; empty when the messaging library has none
  bool isPaused = false;
  std::uint64_t commands = 0;           // that could be read
  std::uint64_t malformedCommands = 0;  // messages on the command topics that could not
  std::uint64_t dropped = 0;            // messages besides prices that were too large or too many to be taken in
};

struct Snapshot {
  double elapsedSeconds = 0;
  ClientSnapshot client;
  std::vector<InstanceSnapshot> instances;

  Totals Total() const;

  // Updates a second of all instances, over the last one.
  double CurrentRate() const;

  LatencyHistogram RecentLatency() const;

  // Instances that are up or back.
  std::size_t AliveInstances() const;
};

}  // namespace price_client
