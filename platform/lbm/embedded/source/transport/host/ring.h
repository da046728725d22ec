// A queue of frames between one writer and one reader who share memory and do not trust each other.
//
// The writer appends frames and moves the tail, the reader takes them and moves the head. Both are counters of bytes
// that run on for ever and wrap; their lower bits are a place in the ring. A frame is a header and its content, begins
// at a multiple of eight bytes and never runs over the end of the ring: where it would, a frame of padding fills the
// end and the frame begins anew at the start.
//
// Order of memory accesses
//
// 1. Frames. The writer stores the tail after the frame's bytes, with release order; the reader loads it with acquire
//    order before it reads them. In the same way the reader stores the head after it has read, and the writer loads it
//    before it writes there again. Each side works from copies of the other's counter and looks again only when the
//    copy says that there is nothing left, so a stream of frames moves few cache lines.
// 2. Sleeping readers. The reader declares that it will sleep and then looks at the tail; the writer stores the tail
//    before it looks whether the reader sleeps. All four are sequentially consistent, so they have one order: if the
//    writer looked before the declaration, it had stored the tail before it as well, and the reader sees the frame.
//    Either the reader does not sleep or the writer wakes it. A reader with much to read declares that it is busy, and
//    the writer leaves it at the store with release order while it sees that; see wake_word.h.
// 3. Writers without room. The writer stores that it wants room and then looks at the head; the reader stores the head
//    and then looks whether room is wanted. Again all four are sequentially consistent: either the writer sees the room
//    or the reader sees that it has to tell. The reader does both whenever it has taken all there was, so a writer
//    cannot be forgotten by a reader that sleeps.
//
// A sequentially consistent store is a locked instruction on x86-64, which waits until all that was written before has
// reached the cache, and in a stream of frames the reader has just looked at those cache lines. The writer pays for one
// a frame unless the reader is busy; the reader for one each time that it gives back a part of the ring.
//
// Cache lines. Both sides fetch the lines that they will need a few frames ahead, the reader only those that are
// written: while a side handles one frame, the lines of the next ones come from the other processor's cache.
//
// Trust. Either side may find anything in the shared memory at any time. What decides about an access is copied out of
// it first, then checked, then used; what a side knows itself it never reads back. A counter or a frame that cannot be
// right throws Fault.
#pragma once

#include <algorithm>
#include <atomic>
#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <span>

#include "system/processor.h"
#include "transport/host/fault.h"

namespace engine::transport::host {

// What both sides see beside the ring's bytes. All zero is an empty ring. Each side's own words are on cache lines that
// the other one does not write; two lines apart, because processors fetch them in pairs.
template <std::unsigned_integral Counter>
struct RingControl {
  static constexpr std::size_t kApart = 128;

  // Written by the writer:
  alignas(kApart) std::atomic<Counter> tail;
  // Apart from the tail: the reader looks at it more often than it changes.
  alignas(kApart) std::atomic<std::uint32_t> roomWanted;  // the number of times that room was asked for
  // Written by the reader:
  alignas(kApart) std::atomic<Counter> head;
  alignas(kApart) std::atomic<std::uint32_t> roomTold;  // roomWanted as last answered; writers wait for its change

  static_assert(std::atomic<Counter>::is_always_lock_free && std::atomic<std::uint32_t>::is_always_lock_free);
};

// The thread sanitizer takes the two mappings of a ring for two pieces of memory. These show it that what a thread did
// before it committed a frame comes before what another thread of the process does after it has looked.
#ifdef __SANITIZE_THREAD__
inline std::atomic<unsigned> ringCommits{0};
inline void showCommit() noexcept { ringCommits.fetch_add(1, std::memory_order_release); }
inline void showLook() noexcept { static_cast<void>(ringCommits.load(std::memory_order_acquire)); }
#else
inline void ShowCommit() noexcept {}
inline void ShowLook() noexcept {}
#endif

struct RingFrameHeader {
  std::uint32_t size = 0;  // bytes of the content
  std::uint32_t tag = 0;   // says what it is; kRingPadding: nothing

  // Bytes that a frame takes up in a ring.
  static constexpr std::uint64_t kAlignment = 8;
  static constexpr std::uint64_t Footprint(std::uint64_t size) {
    return (sizeof(RingFrameHeader) + size + kAlignment - 1) & ~(kAlignment - 1);
  }
};
inline constexpr std::uint32_t kRingPadding = 0;

// What writer and reader have in common: the ring's bytes and how a counter finds its place among them.
template <std::unsigned_integral Counter>
class RingEnd {
 public:
  std::size_t Capacity() const noexcept { return m_bytes.size(); }

 protected:
  // bytes: a power of two of them, at least 64, fewer than a Counter counts; aligned to eight.
  RingEnd(RingControl<Counter>& control, std::span<std::byte> bytes) : m_control(&control), m_bytes(bytes) {
    if (!std::has_single_bit(bytes.size()) || bytes.size() < 64 || bytes.size() > std::numeric_limits<Counter>::max()) {
      throw Fault("a ring has an impossible size");
    }
  }

  static Counter Distance(Counter from, Counter to) noexcept { return static_cast<Counter>(to - from); }
  std::size_t PlaceOf(Counter counter) const noexcept { return counter & (m_bytes.size() - 1); }
  RingControl<Counter>& Control() const noexcept { return *m_control; }

  // Bytes that are fetched ahead; none in a ring that is not much larger.
  static constexpr std::size_t kFetchedAhead = 512;
  Counter FetchedAhead() const noexcept {
    return static_cast<Counter>(Capacity() >= 8 * kFetchedAhead ? kFetchedAhead : 0);
  }

  // The addresses of the cache lines that begin between the two counters.
  template <class Function>
  void ForLinesBetween(Counter from, Counter to, Function function) const {
    constexpr std::uint64_t kLine = 64;
    const std::uint64_t end = Distance(from, to);
    for (std::uint64_t offset = -std::uint64_t{from} % kLine; offset < end; offset += kLine) {
      function(At(PlaceOf(static_cast<Counter>(from + offset))));
    }
  }

  std::byte* At(std::size_t place) const noexcept { return m_bytes.data() + place; }

 private:
  RingControl<Counter>* m_control;
  std::span<std::byte> m_bytes;
};

template <std::unsigned_integral Counter>
class RingWriter : public RingEnd<Counter> {
 public:
  RingWriter(RingControl<Counter>& control, std::span<std::byte> bytes) : RingEnd<Counter>(control, bytes) {}

  // The place for the content of a frame, to be filled before commit(); null when there is no room for it. A frame of
  // up to an eighth of the ring finds room whenever a quarter is free.
  std::byte* Reserve(std::size_t size, std::uint32_t tag) {
    const Plan plan = PlanFor(size);
    if (!HasRoomFor(plan)) {
      return nullptr;
    }
    std::size_t place = this->PlaceOf(m_tail);
    if (plan.padding != 0) {
      WriteHeader(place, static_cast<std::uint32_t>(plan.padding - sizeof(RingFrameHeader)), kRingPadding);
      place = 0;
    }
    WriteHeader(place, static_cast<std::uint32_t>(size), tag);
    m_next = static_cast<Counter>(m_tail + plan.padding + plan.footprint);
    return this->At(place + sizeof(RingFrameHeader));
  }

  // Hands the reserved frame to the reader.
  void Commit() noexcept {
    FetchAhead();
    m_tail = m_next;
    ShowCommit();
    this->Control().tail.store(m_tail, std::memory_order_release);
  }

  // To be called after commit() and before looking whether a reader that is not busy sleeps.
  void OrderCommit() noexcept { this->Control().tail.store(m_tail, std::memory_order_seq_cst); }

  bool HasRoom(std::size_t size) { return HasRoomFor(PlanFor(size)); }
  // The same without looking at what the reader has given back since.
  bool KnowsOfRoom(std::size_t size) const noexcept { return PlanFor(size).Needed() <= Known(); }

  // Bytes not taken up, padding that may be needed included.
  std::size_t Room() {
    LookAtHead();
    return Known();
  }

  // Asks to be told when half of the ring is free. Look for room after this and before waiting. Returns the value of
  // roomTold that means that nothing was told since.
  std::uint32_t WantRoom() {
    const std::uint32_t told = this->Control().roomTold.load(std::memory_order_acquire);
    if (told == m_wanted) {
      this->Control().roomWanted.store(++m_wanted, std::memory_order_seq_cst);
    }
    return told;
  }

 private:
  struct Plan {
    std::uint64_t padding;
    std::uint64_t footprint;
    std::uint64_t Needed() const noexcept { return padding + footprint; }
  };

  Plan PlanFor(std::size_t size) const noexcept {
    const std::uint64_t footprint = RingFrameHeader::Footprint(size);
    const std::uint64_t toEnd = this->Capacity() - this->PlaceOf(m_tail);
    return {footprint > toEnd ? toEnd : 0, footprint};
  }

  bool HasRoomFor(const Plan& plan) {
    if (plan.Needed() > Known()) {
      LookAtHead();
    }
    return plan.Needed() <= Known();
  }

  std::size_t Known() const noexcept { return this->Capacity() - this->Distance(m_head, m_tail); }

  void LookAtHead() {
    const Counter head = this->Control().head.load(std::memory_order_seq_cst);
    if (this->Distance(head, m_tail) > this->Distance(m_head, m_tail)) {
      throw Fault("the reader's place in a ring is impossible");
    }
    m_head = head;
  }

  // The lines that the window of what is fetched ahead takes in while it moves on by the reserved frame.
  void FetchAhead() const noexcept {
    const Counter window = this->FetchedAhead();
    const Counter moved = std::min(this->Distance(m_tail, m_next), window);
    const Counter end = static_cast<Counter>(m_next + window);
    this->ForLinesBetween(static_cast<Counter>(end - moved), end, [](std::byte* line) { PrefetchToWrite(line); });
  }

  void WriteHeader(std::size_t place, std::uint32_t size, std::uint32_t tag) noexcept {
    const RingFrameHeader header{size, tag};
    std::memcpy(this->At(place), &header, sizeof(header));
  }

  Counter m_tail = 0;  // as the reader knows it
  Counter m_next = 0;  // after the reserved frame
  Counter m_head = 0;  // copy; the true one is this or further
  std::uint32_t m_wanted = 0;
};

struct RingFrame {
  std::uint32_t tag = 0;
  std::span<const std::byte> content;  // in the ring: a faulty writer may change it at any time
};

template <std::unsigned_integral Counter>
class RingReader : public RingEnd<Counter> {
 public:
  RingReader(RingControl<Counter>& control, std::span<std::byte> bytes) : RingEnd<Counter>(control, bytes) {}

  // Takes the next of the frames that the last look found. The content may be used until the next call of anything
  // here. False when there is none left.
  bool Next(RingFrame& frame) {
    if (this->Distance(m_released, m_position) >= this->Capacity() / kReleases) {
      GiveBack();
    }
    while (m_position != m_tail) {
      RingFrameHeader header;
      const std::size_t place = this->PlaceOf(m_position);
      std::memcpy(&header, this->At(place), sizeof(header));
      const std::uint64_t footprint = RingFrameHeader::Footprint(header.size);
      if (footprint > this->Distance(m_position, m_tail) || footprint > this->Capacity() - place) {
        throw Fault("a frame in a ring runs past the end");
      }
      m_position = static_cast<Counter>(m_position + footprint);
      const std::uint64_t window = this->FetchedAhead();
      FetchAhead(m_tail, window - std::min(window, footprint));
      if (header.tag != kRingPadding) {
        frame = {header.tag, {this->At(place + sizeof(header)), header.size}};
        return true;
      }
    }
    return false;
  }

  // Looks for frames behind those known already. False when there are none at all.
  bool Look() {
    const Counter tail = this->Control().tail.load(std::memory_order_seq_cst);
    ShowLook();
    if (tail == m_tail) {
      return m_position != m_tail;
    }
    if (this->Distance(m_position, tail) > this->Capacity() ||
        this->Distance(m_position, tail) < this->Distance(m_position, m_tail) ||
        tail % RingFrameHeader::kAlignment != 0) {
      throw Fault("the writer's place in a ring is impossible");
    }
    FetchAhead(tail, this->Distance(m_position, m_tail));
    m_tail = tail;
    return true;
  }

  // Gives back the room of all frames taken. True when the writer is to be told of room, see told().
  bool Release() noexcept {
    if (m_released != m_position) {
      GiveBack();
    }
    return ToldIsDue();
  }

  // Whether the writer wants to be told of room, and half of the ring is free.
  bool ToldIsDue() const noexcept {
    return this->Control().roomWanted.load(std::memory_order_seq_cst) != m_told &&
           this->Distance(m_released, m_tail) <= this->Capacity() / 2;
  }

  // Answers the writer's want. Returns the word that writers wait on.
  std::atomic<std::uint32_t>& Told() noexcept {
    m_told = this->Control().roomWanted.load(std::memory_order_seq_cst);
    this->Control().roomTold.store(m_told, std::memory_order_release);
    return this->Control().roomTold;
  }

 private:
  // In so many parts is the ring given back while frames keep coming.
  static constexpr std::size_t kReleases = 16;

  // The lines of the next bytes up to the tail, but for the first ones, which are fetched already.
  void FetchAhead(Counter tail, std::uint64_t fetched) const noexcept {
    const std::uint64_t end = std::min<std::uint64_t>(this->FetchedAhead(), this->Distance(m_position, tail));
    if (fetched < end) {
      this->ForLinesBetween(static_cast<Counter>(m_position + fetched), static_cast<Counter>(m_position + end),
                            [](const std::byte* line) { PrefetchToRead(line); });
    }
  }

  void GiveBack() noexcept {
    m_released = m_position;
    this->Control().head.store(m_released, std::memory_order_seq_cst);
  }

  Counter m_position = 0;  // of the next frame
  Counter m_tail = 0;      // copy; the true one is this or further
  Counter m_released = 0;  // the head as the writer knows it
  std::uint32_t m_told = 0;
};

}  // namespace engine::transport::host
