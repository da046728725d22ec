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
  if (++segment.liveSources > 1) return;
  if (m_liveSegments.Get() == 0) m_appearances.Add();
  m_liveSegments.Add();
}

void InstanceMonitor::OnSessionBegin(unsigned segment) noexcept { NoteLive(m_segments[segment]); }

void InstanceMonitor::OnSessionEnd(unsigned segment) noexcept {
  Segment& state = m_segments[segment];
  if (state.liveSources == 0 || --state.liveSources > 0) return;
  state.ended = true;
  m_liveSegments.Set(m_liveSegments.Get() - 1);
}

void InstanceMonitor::OnData(unsigned segment, std::span<const std::byte> data, std::int64_t arrivedAt) noexcept {
  const auto message = feed::DecodePriceMessage(data);
  if (!message || message->segment != segment) {
    m_malformed.Add();
    return;
  }
  Segment& state = m_segments[segment];
  if (state.liveSources == 0) NoteLive(state);
  NoteSequence(state, *message);
  NotePrice(*message);
  // Clocks of different machines may disagree, and any clock may be set: an
  // update is never early.
  m_latency.Record(static_cast<std::uint64_t>(std::max<std::int64_t>(0, arrivedAt - message->sentAt)));
  if (m_firstAt.Get() == 0) m_firstAt.Set(static_cast<std::uint64_t>(arrivedAt));
  m_lastAt.Set(static_cast<std::uint64_t>(arrivedAt));
  m_updates.Add();
}

void InstanceMonitor::NoteSequence(Segment& segment, const feed::PriceMessage& message) noexcept {
  if (message.session == segment.session) {
    if (message.sequence > segment.sequence + 1) {
      m_gaps.Add();
      m_missed.Add(message.sequence - segment.sequence - 1);
    }
    segment.sequence = std::max(segment.sequence, message.sequence);
    return;
  }
  // The last messages of a server that was killed may arrive among the first of
  // its successor. Once they are through, a lesser session is new all the same:
  // the server's clock was set back.
  if (message.session < segment.session && !segment.ended) return;
  // What came before the first update ever seen was not meant for this client.
  // After a restart it was.
  if (segment.session != 0) {
    m_gaps.Add();
    m_missed.Add(message.sequence - 1);
  }
  segment.session = message.session;
  segment.sequence = message.sequence;
  segment.ended = false;
  if (message.session != m_session) {
    if (m_session != 0) m_restarts.Add();
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
    if (m_records[number].symbol == symbol) return number;
    slot = (slot + 1) % kIndexSize;
  }
  if (m_records.size() == kMaxSymbols) return kMaxSymbols;
  m_records.emplace_back().symbol = symbol;
  m_index[slot] = static_cast<std::uint16_t>(m_records.size());
  return m_records.size() - 1;
}

InstanceSnapshot InstanceMonitor::Read() const {
  InstanceSnapshot snapshot;
  snapshot.name = m_name;
  snapshot.segments = static_cast<unsigned>(m_segments.size());
  snapshot.liveSegments = static_cast<unsigned>(m_liveSegments.Get());
  const auto appearances = m_appearances.Get();
  if (appearances == 0) {
    snapshot.state = InstanceState::kNeverSeen;
  } else if (snapshot.liveSegments == 0) {
    snapshot.state = InstanceState::kGone;
  } else {
    snapshot.state = appearances == 1 ? InstanceState::kUp : InstanceState::kBack;
  }
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
