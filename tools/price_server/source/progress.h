// How far a replay has come.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "feed/price.h"

namespace price_server {

// Threads: NoteSent on one, the rest on any.
class Progress {
 public:
  explicit Progress(std::size_t symbols) : m_lastPrices(symbols) {}

  // symbol as in feed::RecordedPrice.
  void NoteSent(std::uint32_t symbol, feed::Price price) {
    m_lastPrices[symbol].units.store(price.Units(), std::memory_order_relaxed);
    m_updatesSent.store(UpdatesSent() + 1, std::memory_order_relaxed);
  }

  std::uint64_t UpdatesSent() const { return m_updatesSent.load(std::memory_order_relaxed); }

  std::optional<feed::Price> LastPrice(std::uint32_t symbol) const {
    const auto units = m_lastPrices[symbol].units.load(std::memory_order_relaxed);
    return units == kNone ? std::nullopt : std::optional(feed::Price(units));
  }

 private:
  static constexpr std::int64_t kNone = -1;
  struct Slot {
    std::atomic<std::int64_t> units{kNone};
  };

  std::vector<Slot> m_lastPrices;
  std::atomic<std::uint64_t> m_updatesSent{0};
};

}  // namespace price_server
