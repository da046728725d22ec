// The prices that arrive from one server instance, taken in on the dispatch
// thread and read by the view.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "counter.h"
#include "feed/price_message.h"
#include "latency_histogram.h"
#include "seqlock.h"
#include "session_tracker.h"
#include "snapshot.h"

namespace price_client {

// All memory is taken at construction: what the dispatch thread calls allocates
// nothing and waits for nothing.
//
// Threads: the On functions on one thread at a time, the dispatch thread; Read
// on any. What Read returns is a moment's view of every single number; numbers
// may be one update apart from each other while updates arrive.
class InstanceMonitor {
 public:
  // Symbols that are shown one by one; updates of further ones are only
  // counted.
  static constexpr std::size_t kMaxSymbols = 1024;

  InstanceMonitor(std::string name, unsigned segments);

  // A source of the segment appeared, or went. Both may overlap when a server
  // is replaced by another. The latter returns whether that source was known.
  void OnSessionBegin(unsigned segment) noexcept;
  bool OnSessionEnd(unsigned segment) noexcept;

  // Any bytes whatever that came as data; arrivedAt as
  // feed::RealTimeNanoseconds counts. Returns whether they made a source known
  // that had not appeared before.
  bool OnData(unsigned segment, std::span<const std::byte> data, std::int64_t arrivedAt) noexcept;

  // The messaging library reported that messages are lost for good.
  void OnLoss(std::uint64_t messages) noexcept { m_lost.Add(messages); }

  // The client has stopped to listen, and may begin anew: what it misses
  // meanwhile is no gap.
  // Threads: any, while no On function can be called.
  void Detach() noexcept;

  // What prices tell; without the current rate, which takes two readings.
  InstanceSnapshot Read() const;

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
  // The symbol's number, a new one if need be; kMaxSymbols when there is no
  // room.
  std::size_t NumberOf(const feed::Symbol& symbol) noexcept;

  const std::string m_name;

  // The dispatch thread's own.
  std::vector<Segment> m_segments;
  std::uint64_t m_session = 0;  // the one that began last
  std::vector<SymbolSnapshot> m_records;
  std::array<std::uint16_t, kIndexSize> m_index{};  // open addressing; number + 1, 0 is free

  // Written by the dispatch thread, read by the view.
  std::vector<Seqlock<SymbolSnapshot>> m_published;
  std::atomic<std::size_t> m_publishedCount{0};
  Counter m_liveSegments;
  Counter m_updates;
  Counter m_gaps;
  Counter m_missed;
  Counter m_lost;
  Counter m_restarts;
  Counter m_malformed;
  Counter m_untracked;
  Counter m_firstAt;
  Counter m_lastAt;
  LatencyHistogram m_latency;
};

}  // namespace price_client
