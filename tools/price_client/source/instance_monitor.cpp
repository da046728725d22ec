#include "instance_monitor.h"

#include <algorithm>
#include <functional>
#include <string_view>

namespace price_client {

InstanceMonitor::InstanceMonitor(unsigned segments) : m_segments(segments) { m_prices.symbols.reserve(kMaxSymbols); }

void InstanceMonitor::NoteLive(Segment& segment) noexcept {
  if (++segment.liveSources == 1) {
    ++m_prices.liveSegments;
  }
}

void InstanceMonitor::OnSessionBegin(unsigned segment) noexcept { NoteLive(m_segments[segment]); }

bool InstanceMonitor::OnSessionEnd(unsigned segment) noexcept {
  Segment& state = m_segments[segment];
  if (state.liveSources == 0) {
    return false;
  }
  state.sessions.SourceEnded();
  if (--state.liveSources == 0) {
    --m_prices.liveSegments;
  }
  return true;
}

bool InstanceMonitor::OnData(unsigned segment, std::string_view data, std::int64_t arrivedAt) noexcept {
  auto& totals = m_prices.totals;
  const auto message = feed::DecodePriceMessage(data);
  if (!message || message->segment != segment) {
    ++totals.malformed;
    return false;
  }
  Segment& state = m_segments[segment];
  const bool isUnannounced = state.liveSources == 0;
  if (isUnannounced) {
    NoteLive(state);
  }
  NoteSequence(state, *message);
  NotePrice(*message);
  // Clocks of different machines may disagree, and any clock may be set: an update is never early.
  totals.latency.Record(static_cast<std::uint64_t>(std::max<std::int64_t>(0, arrivedAt - message->sentAt)));
  if (totals.updates++ == 0) {
    totals.firstAt = arrivedAt;
  }
  totals.lastAt = arrivedAt;
  return isUnannounced;
}

void InstanceMonitor::Detach() noexcept {
  std::fill(m_segments.begin(), m_segments.end(), Segment());
  m_prices.liveSegments = 0;
}

void InstanceMonitor::NoteSequence(Segment& segment, const feed::PriceMessage& message) noexcept {
  auto& totals = m_prices.totals;
  switch (segment.sessions.Take(message.session)) {
    case SessionTracker::Order::kStale:
      return;
    case SessionTracker::Order::kSame:
      if (message.sequence > segment.sequence + 1) {
        ++totals.gaps;
        totals.missed += message.sequence - segment.sequence - 1;
      }
      segment.sequence = std::max(segment.sequence, message.sequence);
      return;
    case SessionTracker::Order::kNext:
      // Unlike what came before the first update, this was meant for this client.
      ++totals.gaps;
      totals.missed += message.sequence - 1;
      break;
    case SessionTracker::Order::kFirst:
      break;
  }
  segment.sequence = message.sequence;
  if (message.session != m_session) {
    if (m_session != 0) {
      ++totals.restarts;
    }
    m_session = message.session;
  }
}

void InstanceMonitor::NotePrice(const feed::PriceMessage& message) noexcept {
  auto* const record = RecordOf(message.symbol);
  if (record == nullptr) {
    ++m_prices.totals.untracked;
    return;
  }
  record->previousPrice = record->updates == 0 ? message.price : record->price;
  record->price = message.price;
  record->date = message.date;
  ++record->updates;
}

SymbolSnapshot* InstanceMonitor::RecordOf(const feed::Symbol& symbol) noexcept {
  auto& symbols = m_prices.symbols;
  auto slot = std::hash<std::string_view>{}(symbol.View()) % kIndexSize;
  while (m_index[slot] != 0) {
    auto& record = symbols[m_index[slot] - 1U];
    if (record.symbol == symbol) {
      return &record;
    }
    slot = (slot + 1) % kIndexSize;
  }
  if (symbols.size() == kMaxSymbols) {
    return nullptr;
  }
  symbols.emplace_back().symbol = symbol;
  m_index[slot] = static_cast<std::uint16_t>(symbols.size());
  return &symbols.back();
}

}  // namespace price_client
