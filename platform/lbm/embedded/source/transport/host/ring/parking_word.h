// How producers learn that a consumer is parked: a shared word that the consumer stores and its producers can only
// read, so that none of them can withhold wake-ups from it.
//
// The word says whether the consuming context is parked, or is about to, and counts how often it has (its epoch). A
// producer rings the doorbell once an epoch, so it makes one system call however many frames it commits before the
// context wakes.
//
// ring.h explains in which order a producer has to store a frame's header and load this word; in a stream of frames
// that order costs it much. A context that consumes many frames says in the word that it is busy, which is a promise:
// before it parks it will issue a heavy fence that reaches its producers. A producer that has stored the header, in
// release order, and then sees the word busy is done: if the heavy fence came before that store, it would not have seen
// the word busy, and if it came after, the context sees the frame. The fence interrupts every producer on the machine,
// so it has to be earned by many frames.
#pragma once

#include <atomic>
#include <cstdint>

#include "system/asymmetric_fence.h"
#include "system/atomic.h"
#include "system/tuning.h"
#include "transport/host/ring/shared_memory.h"
#include "zq/posix/descriptor.h"

namespace engine::transport::host {

// The word: the epoch, and in its lowest bits what the context is doing.
using ParkingState = std::uint64_t;
inline constexpr ParkingState kParked = 1;
inline constexpr ParkingState kBusy = 2;
inline constexpr ParkingState kNextEpoch = 4;
static_assert(Atomic<ParkingState>::is_always_lock_free);  // who can only read could not take a lock

// A context's own word. Threads: GetDescriptor on any; all else for the thread that processes the context's events.
class ParkingWord {
 public:
  ParkingWord();  // throws std::system_error

  int GetDescriptor() const noexcept { return m_memory.Get(); }  // to pass to producers

  // Counts frames consumed since the last Park, and says busy once they are many.
  void NoteConsumed(std::size_t frames) noexcept {
    if (m_consumed < kBusyAfter && (m_consumed += frames) >= kBusyAfter && m_canBeBusy) {
      Store(m_epoch | kBusy, std::memory_order_release);
    }
  }

  // After Park, look for frames once more before waiting for the doorbell.
  void Park() noexcept;
  void Unpark() noexcept { Store(m_epoch, std::memory_order_release); }

  static constexpr std::size_t kBusyAfter = 4096;  // frames

 private:
  void Store(ParkingState state, std::memory_order order) noexcept {
    static_cast<Atomic<ParkingState>*>(m_mapping.Address())->store(state, order);
  }

  zq::posix::Descriptor m_memory;
  Mapping m_mapping;
  ParkingState m_epoch = 0;
  const bool m_canBeBusy = tuning::kBusyWord && GlobalFenceAvailable();
  std::size_t m_consumed = 0;  // frames since the last Park; not counted beyond kBusyAfter
};

// A peer's word.
class PeerParkingWord {
 public:
  // Throws Fault when the memory is no parking word, std::system_error when the system refuses to map it.
  explicit PeerParkingWord(const zq::posix::Descriptor& memory);

  // To be asked after a frame was committed: whether the consumer is busy, so that nothing else is to be done.
  bool Busy() const noexcept {
    LightFence();
    return m_reachable && (Load(std::memory_order_relaxed) & kBusy) != 0;
  }

  // Otherwise, after the commit was fenced: whether the consumer is parked and this epoch's doorbell was not rung yet.
  bool NeedsDoorbell() noexcept {
    const ParkingState state = Load(std::memory_order_seq_cst);
    if ((state & kParked) == 0 || state == m_rung) {
      return false;
    }
    m_rung = state;
    return true;
  }

 private:
  ParkingState Load(std::memory_order order) const noexcept {
    return static_cast<const Atomic<ParkingState>*>(m_mapping.Address())->load(order);
  }

  Mapping m_mapping;
  const bool m_reachable = RegisterForGlobalFences();
  ParkingState m_rung = 0;
};

}  // namespace engine::transport::host
