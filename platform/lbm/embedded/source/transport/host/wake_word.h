// How publishers learn that a context sleeps: a word that the context writes and its peers can only read, so none of
// them can keep wake-ups from it.
//
// The word says whether the context sleeps, or is about to, and counts how often it has. A publisher rings once each
// time, so it makes one system call however many messages it sends before the context wakes.
//
// Publishers have to look at the word in the order that ring.h explains, which costs them much when they send much. A
// context with much to read says that it is busy, which means that before it declares to sleep it will put a barrier
// into its publishers' threads: a publisher that sees the word busy after it stored the tail may go on. If the barrier
// came before that store, the publisher would not have seen the word busy; if after it, the context will see the tail.
// The barrier disturbs all publishers of the machine, so it has to be earned by many messages.
#pragma once

#include <atomic>
#include <cstdint>

#include "system/barrier.h"
#include "transport/host/shared_memory.h"
#include "zq/posix/descriptor.h"

namespace engine::transport::host {

// The number of sleeps, and in the lowest bits what the context does now.
using WakeEpoch = std::uint64_t;
inline constexpr WakeEpoch kAsleep = 1;
inline constexpr WakeEpoch kBusy = 2;
inline constexpr WakeEpoch kOneSleep = 4;
static_assert(std::atomic<WakeEpoch>::is_always_lock_free);  // peers have no right to write

// Threads: all but descriptor() for the thread that processes the context's events.
class WakeWord {
 public:
  WakeWord();  // throws std::system_error

  int GetDescriptor() const noexcept { return m_memory.Get(); }  // to pass on

  // Counts frames that were read in a run, and declares to be busy when they were many since the last arm().
  void NoteFrames(std::size_t count) noexcept {
    if (m_frames < kBusyAfter && (m_frames += count) >= kBusyAfter && m_canBeBusy) {
      Set(m_sleeps | kBusy, std::memory_order_release);
    }
  }

  void Arm() noexcept;
  void Disarm() noexcept { Set(m_sleeps, std::memory_order_release); }

  // Frames without which nobody is busy.
  static constexpr std::size_t kBusyAfter = 4096;

 private:
  void Set(WakeEpoch value, std::memory_order order) noexcept {
    static_cast<std::atomic<WakeEpoch>*>(m_mapping.Address())->store(value, order);
  }

  zq::posix::Descriptor m_memory;
  Mapping m_mapping;
  WakeEpoch m_sleeps = 0;
  const bool m_canBeBusy = GlobalBarrierWorks();
  std::size_t m_frames = 0;  // since the last arm(), not counted on from kBusyAfter
};

// A peer's.
class RemoteWakeWord {
 public:
  // Throws Fault when it is none, std::system_error when the system refuses.
  explicit RemoteWakeWord(const zq::posix::Descriptor& memory);

  // To be asked after a tail was stored: whether the peer is busy, and nothing else is to be done.
  bool Busy() const noexcept {
    KeepOrder();
    return m_reached && (Load(std::memory_order_relaxed) & kBusy) != 0;
  }

  // Otherwise, after the store was ordered: whether the peer sleeps and this was not yet answered true while it does.
  bool ToBeRung() noexcept {
    const WakeEpoch epoch = Load(std::memory_order_seq_cst);
    if ((epoch & kAsleep) == 0 || epoch == m_rung) {
      return false;
    }
    m_rung = epoch;
    return true;
  }

 private:
  WakeEpoch Load(std::memory_order order) const noexcept {
    return static_cast<const std::atomic<WakeEpoch>*>(m_mapping.Address())->load(order);
  }

  Mapping m_mapping;
  const bool m_reached = LetGlobalBarrierReachUs();
  WakeEpoch m_rung = 0;
};

}  // namespace engine::transport::host
