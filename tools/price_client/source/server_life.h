// Where a server instance stands in its life, as far as a client can tell.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "feed/server_status.h"
#include "session_tracker.h"
#include "snapshot.h"

namespace price_client {

// The instance is up as long as any source of its price topics or its status topic lives; what its status says is
// shown besides, as a server may hang without its sources' ending. A value: copies are independent.
class ServerLife {
 public:
  using Clock = std::chrono::steady_clock;
  enum class Topic : std::uint8_t { kPrices, kStatus };

  // A status that has not come for longer than maxSilence, though it should, makes the server silent.
  explicit ServerLife(Clock::duration maxSilence) : m_maxSilence(maxSilence) {}

  // Sources of one topic may overlap when a server is replaced by another.
  void SourceCame(Topic topic);
  void SourceWent(Topic topic);

  // The client has stopped to listen to prices: from here on, until their sources come again, the status topic alone
  // tells.
  void PricesDropped();

  void TakeStatus(const feed::ServerStatus& status, Clock::time_point now);

  InstanceState State() const { return m_state; }

  // Counts the runs of the server that were noticed: grows when it comes up, comes back, or its status tells of another
  // session.
  std::uint64_t Run() const { return m_run; }

  // The last status since the instance came up last; none before the first.
  std::optional<StatusSnapshot> Status(Clock::time_point now) const;

 private:
  unsigned& LiveSources(Topic topic) { return topic == Topic::kPrices ? m_livePriceSources : m_liveStatusSources; }
  bool HasLiveSource() const { return m_livePriceSources + m_liveStatusSources > 0; }
  void Settle();

  Clock::duration m_maxSilence;
  InstanceState m_state = InstanceState::kNeverSeen;
  unsigned m_livePriceSources = 0;
  unsigned m_liveStatusSources = 0;
  std::uint64_t m_run = 0;
  SessionTracker m_sessions;
  std::optional<feed::ServerStatus> m_status;
  Clock::time_point m_statusAt;
};

}  // namespace price_client
