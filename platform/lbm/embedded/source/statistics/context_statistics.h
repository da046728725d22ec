// What the engine counts: the kinds of rows that it writes (docs/statistics.md), and how they are made.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

#include "zq/statistics/row.h"

namespace engine {

// Fields of the kinds, by their places.
namespace context_field {
enum : std::size_t {
  kDelivered,
  kPasses,
  kWakeups,
  kWaitsForRoom,
  kDropped,
  kSpinsFound,
  kSpinsInVain,
  kWaiting,
  kSpinTime,
  kSources,
  kReceivers,
  kTopics,
  kPeers,
  kLatency
};
}
namespace peer_field {
enum : std::size_t { kMessages, kBytes, kWaitsForRoom, kDropped, kWakeups, kRingBytes, kRingHighWater };
}
namespace source_field {
enum : std::size_t { kMessages, kSubscribers };
}
namespace receiver_field {
enum : std::size_t { kMessages, kSources };
}
namespace network_field {
enum : std::size_t { kReconnects, kBatches, kBatchBytes, kDropped, kReceiveDropped, kConnected, kRoundTrip };
}

// The statistics of one context: its own row, and rows with its labels. Rows may outlive it.
//
// Threads: any.
class ContextStatistics {
 public:
  struct Labels {
    std::string context;
    std::string handle;
    std::string domain;
    std::string transport;
  };

  // Nothing that is written is anywhere to be seen.
  ContextStatistics() = default;
  explicit ContextStatistics(Labels labels);

  // Of the kind engine_context. Fields of the dispatching thread: delivered, passes, wakeups, the spins', waiting,
  // spin_time, receivers, topics, peers, latency; all others take additions of any thread.
  zq::statistics::Row& Counters() noexcept { return m_row; }

  // Notes that a message is delivered now that was sent at that time of the monotonic clock. Threads: the dispatching
  // one.
  void NoteDelivery(std::uint64_t sent) noexcept;

  zq::statistics::Row PeerRow(std::string_view peer) const noexcept;
  zq::statistics::Row SourceRow(std::string_view topic) const noexcept;
  zq::statistics::Row ReceiverRow(std::string_view topic) const noexcept;
  zq::statistics::Row NetworkRow(std::string_view servers) const noexcept;

  const Labels& GetLabels() const noexcept { return m_labels; }

 private:
  zq::statistics::Row MakeRow(const zq::statistics::Kind& kind, std::string_view object) const noexcept;

  const bool m_shown = false;
  const Labels m_labels{};
  zq::statistics::Row m_row;
};

// labels: of the kind option, as docs/statistics.md has them.
zq::statistics::Row OptionRow(std::initializer_list<std::string_view> labels) noexcept;

}  // namespace engine
