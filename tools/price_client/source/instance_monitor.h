// The prices that arrive from one server instance.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "feed/price_message.h"
#include "session_tracker.h"
#include "snapshot.h"

namespace price_client {

// All memory is taken at construction: what the dispatch thread calls allocates nothing and waits for nothing.
//
// Threads: for one at a time.
class InstanceMonitor {
 public:
  // Symbols that are shown one by one; updates of further ones are only counted.
  static constexpr std::size_t kMaxSymbols = 1024;

  explicit InstanceMonitor(unsigned segments);

  // A source of the segment appeared, or went. Both may overlap when a server is replaced by another. The latter
  // returns whether that source was known.
  void OnSessionBegin(unsigned segment) noexcept;
  bool OnSessionEnd(unsigned segment) noexcept;

  // Any bytes whatever that came as data; arrivedAt as feed::RealTimeNanoseconds counts. Returns whether they made a
  // source known that had not appeared before.
  bool OnData(unsigned segment, std::string_view data, std::int64_t arrivedAt) noexcept;

  // The messaging library reported that messages are lost for good.
  void OnLoss(std::uint64_t messages) noexcept { m_prices.totals.lost += messages; }

  // The client has stopped to listen, and may begin anew: what it misses meanwhile is no gap.
  void Detach() noexcept;

  const PricesSnapshot& Prices() const { return m_prices; }

 private:
  struct Segment {
    SessionTracker sessions;
    std::uint64_t sequence = 0;  // within the session
    unsigned liveSources = 0;
  };
  static constexpr std::size_t kIndexSize = 2 * kMaxSymbols;

  void NoteSequence(Segment& segment, const feed::PriceMessage& message) noexcept;
  void NotePrice(const feed::PriceMessage& message) noexcept;
  void NoteLive(Segment& segment) noexcept;
  // A record of the symbol, a new one if need be; null when there is no room.
  SymbolSnapshot* RecordOf(const feed::Symbol& symbol) noexcept;

  std::vector<Segment> m_segments;
  std::uint64_t m_session = 0;  // the one that began last
  PricesSnapshot m_prices;
  std::array<std::uint16_t, kIndexSize> m_index{};  // of the symbols; open addressing; number + 1, 0 is free
};

}  // namespace price_client
