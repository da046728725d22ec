// How publishers learn that a context sleeps: a word that the context writes and its peers can only read, so none of
// them can keep wake-ups from it.
//
// The word counts; it is odd while the context sleeps or is about to. A publisher rings once for each value, so it
// makes one system call however many messages it sends before the context wakes. See ring.h for the order of accesses.
#pragma once

#include <atomic>
#include <cstdint>

#include "system/descriptor.h"
#include "transport/host/shared_memory.h"

namespace engine::transport::host {

using WakeEpoch = std::atomic<std::uint64_t>;

// Threads: arm() and disarm() for the thread that processes the context's events.
class WakeWord {
 public:
  WakeWord();  // throws std::system_error

  int descriptor() const noexcept { return m_memory.get(); }  // to pass on

  void arm() noexcept { word().store(m_epoch += 1 + m_epoch % 2, std::memory_order_seq_cst); }
  void disarm() noexcept { word().store(m_epoch += m_epoch % 2, std::memory_order_release); }

 private:
  WakeEpoch& word() const noexcept { return *static_cast<WakeEpoch*>(m_mapping.address()); }

  Descriptor m_memory;
  Mapping m_mapping;
  std::uint64_t m_epoch = 0;
};

// A peer's.
class RemoteWakeWord {
 public:
  // Throws Fault when it is none, std::system_error when the system refuses.
  explicit RemoteWakeWord(const Descriptor& memory);

  // Whether the peer sleeps and this was not yet answered true while it does.
  bool toBeRung() noexcept {
    const std::uint64_t epoch = static_cast<const WakeEpoch*>(m_mapping.address())->load(std::memory_order_seq_cst);
    if (epoch % 2 == 0 || epoch == m_rung) {
      return false;
    }
    m_rung = epoch;
    return true;
  }

 private:
  Mapping m_mapping;
  std::uint64_t m_rung = 0;
};

}  // namespace engine::transport::host
