// Which messages carry the time at which they were sent, for statistics of latency.
#pragma once

#include <cstdint>

#include "zq/statistics/row.h"

namespace engine::transport::host {

// One in so many of each source's messages does. Where messages are few, the one after a wake-up does as well when
// there has been none for a time; so many more do not change what a fast flow shows.
//
// Threads: whoever holds the registry's publishing mutex (see publications.h).
class Sampler {
 public:
  // What the message carries: nanoseconds of the monotonic clock; mostly 0, for nothing.
  std::uint64_t TimeFor(std::uint32_t source, std::uint32_t sequence) noexcept {
    // Sources that send in turn have their samples at different times.
    return m_next || (source + sequence) % kMessagesPerSample == 0 ? Take() : 0;
  }

  // A subscriber had to be woken.
  void NoteWakeUp() noexcept { m_next = zq::statistics::Now() - m_last >= kInterval; }

 private:
  static constexpr std::uint32_t kMessagesPerSample = 256;
  static constexpr std::uint64_t kInterval = 100'000'000;  // nanoseconds

  [[gnu::noinline]] std::uint64_t Take() noexcept {
    m_next = false;
    return m_last = zq::statistics::Now();
  }

  bool m_next = true;
  std::uint64_t m_last = 0;
};

}  // namespace engine::transport::host
