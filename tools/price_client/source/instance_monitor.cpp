#include "instance_monitor.h"

#include <algorithm>
#include <functional>
#include <string_view>

namespace price_client {

InstanceMonitor::InstanceMonitor(std::string name, unsigned segments)
    : m_name(std::move(name)), m_segments(segments), m_published(kMaxSymbols) {
  m_records.reserve(kMaxSymbols);
}

void InstanceMonitor::NoteLive(Segment& segment) noexcept {
  if (++segment.liveSources == 1) {
    m_liveSegments.Add();
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
    m_liveSegments.Set(m_liveSegments.Get() - 1);
  }
  return true;
}

bool InstanceMonitor::OnData(unsigned segment, std::span<const std::byte> data, std::int64_t arrivedAt) noexcept {
  const auto message = feed::DecodePriceMessage(data);
  if (!message || message->segment != segment) {
    m_malformed.Add();
    return false;
  }
  Segment& state = m_segments[segment];
  const bool isUnannounced = state.liveSources == 0;
  if (isUnannounced) {
    NoteLive(state);
  }
  NoteSequence(state, *message);
  NotePrice(*message);
  // Clocks of different machines may disagree, and any clock may be set: an
  // update is never early.
  m_latency.Record(static_cast<std::uint64_t>(std::max<std::int64_t>(0, arrivedAt - message->sentAt)));
  if (m_firstAt.Get() == 0) {
    m_firstAt.Set(static_cast<std::uint64_t>(arrivedAt));
  }
  m_lastAt.Set(static_cast<std::uint64_t>(arrivedAt));
  m_updates.Add();
  return isUnannounced;
}

void InstanceMonitor::Detach() noexcept {
  std::fill(m_segments.begin(), m_segments.end(), Segment());
  m_liveSegments.Set(0);
}

void InstanceMonitor::NoteSequence(Segment& segment, const feed::PriceMessage& message) noexcept {
  switch (segment.sessions.Take(message.session)) {
    case SessionTracker::Order::kStale:
      return;
    case SessionTracker::Order::kSame:
      if (message.sequence > segment.sequence + 1) {
        m_gaps.Add();
        m_missed.Add(message.sequence - segment.sequence - 1);
      }
      segment.sequence = std::max(segment.sequence, message.sequence);
      return;
    case SessionTracker::Order::kNext:
      // Unlike what came before the first update, this was meant for this
      // client.
      m_gaps.Add();
      m_missed.Add(message.sequence - 1);
      break;
    case SessionTracker::Order::kFirst:
      break;
  }
  segment.sequence = message.sequence;
  if (message.session != m_session) {
    if (m_session != 0) {
      m_restarts.Add();
    }
    m_session = message.session;
  }
}

void InstanceMonitor::NotePrice(const feed::PriceMessage& message) noexcept {
  const auto number = NumberOf(message.symbol);
  if (number == kMaxSymbols) {
    m_untracked.Add();
    return;
  }
  SymbolSnapshot& record = m_records[number];
  record.previousPrice = record.updates == 0 ? message.price : record.price;
  record.price = message.price;
  record.date = message.date;
  ++record.updates;
  m_published[number].Store(record);
  if (number == m_publishedCount.load(std::memory_order_relaxed)) {
    m_publishedCount.store(number + 1, std::memory_order_release);
  }
}

std::size_t InstanceMonitor::NumberOf(const feed::Symbol& symbol) noexcept {
  auto slot = std::hash<std::string_view>{}(symbol.View()) % kIndexSize;
  while (m_index[slot] != 0) {
    const std::size_t number = m_index[slot] - 1U;
    if (m_records[number].symbol == symbol) {
      return number;
    }
    slot = (slot + 1) % kIndexSize;
  }
  if (m_records.size() == kMaxSymbols) {
    return kMaxSymbols;
  }
  m_records.emplace_back().symbol = symbol;
  m_index[slot] = static_cast<std::uint16_t>(m_records.size());
  return m_records.size() - 1;
}

InstanceSnapshot InstanceMonitor::Read() const {
  InstanceSnapshot snapshot;
  snapshot.name = m_name;
  snapshot.segments = static_cast<unsigned>(m_segments.size());
  snapshot.liveSegments = static_cast<unsigned>(m_liveSegments.Get());
  auto& totals = snapshot.totals;
  totals.updates = m_updates.Get();
  totals.gaps = m_gaps.Get();
  totals.missed = m_missed.Get();
  totals.lost = m_lost.Get();
  totals.restarts = m_restarts.Get();
  totals.malformed = m_malformed.Get();
  totals.untracked = m_untracked.Get();
  totals.firstAt = static_cast<std::int64_t>(m_firstAt.Get());
  totals.lastAt = static_cast<std::int64_t>(m_lastAt.Get());
  totals.latency = m_latency.Read();
  const auto symbols = m_publishedCount.load(std::memory_order_acquire);
  snapshot.symbols.reserve(symbols);
  for (std::size_t i = 0; i < symbols; ++i) {
    snapshot.symbols.push_back(m_published[i].Load());
  }
  return snapshot;
}

}  // namespace price_client
