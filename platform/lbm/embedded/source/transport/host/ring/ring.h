// A single-producer, single-consumer queue of frames in memory that two processes share without trusting each other.
//
// The producer appends frames at the tail, the consumer takes them from the head. Both cursors count bytes, run on for
// ever and wrap; their lower bits are a position in the ring. A frame is a header and its content. It starts at a
// multiple of eight bytes and never crosses the end of the ring: where it would, a padding frame fills the end and the
// frame starts at the front.
//
// Memory ordering
//
// 1. Frames. The producer stores the tail with release order after it has written a frame; the consumer loads the tail
//    with acquire order before it reads the frame. Likewise the consumer stores the head after it has read a frame, and
//    the producer loads the head before it writes there again. Each side works on a cached copy of the other's cursor
//    and loads the cursor itself only when the copy says that nothing is left, so a stream of frames moves few cache
//    lines between the processors.
// 2. Parking. A consumer that is about to park stores that in its parking word and then loads the tail; a producer
//    stores the tail and then loads the parking word. All four accesses are sequentially consistent, so they have one
//    total order: if the producer's load came before the consumer's store, so did its store of the tail, and the
//    consumer sees the frame. Either the consumer does not park or the producer rings its doorbell. A busy consumer
//    spares its producers the sequentially consistent store; see parking_word.h.
// 3. Credit. A producer without space stores a credit request and then loads the head; the consumer stores the head and
//    then loads the request. Again all four are sequentially consistent: either the producer sees the space or the
//    consumer sees that it has to grant credit. The consumer does its half whenever it has taken all there was, before
//    it parks, so no producer is forgotten.
//
// On x86-64 a sequentially consistent store is a locked instruction, which waits until all earlier stores have left the
// store buffer, and in a stream of frames the consumer has just taken those cache lines away. The producer pays for one
// a frame unless the consumer is busy, the consumer for one each time that it releases a part of the ring.
//
// Cache lines. The producer prefetches the lines that it will write a few frames later, so that they come from the
// consumer's cache while the frames before them are handled.
//
// Trust. The other side may change anything in the shared memory at any time. What decides about an access is copied
// out first, then checked, then used; what a side itself wrote it never reads back. A cursor or a frame that cannot be
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
#include "system/tuning.h"
#include "transport/fault.h"

namespace engine::transport::host {

// The shared state beside the ring's bytes. All zero is an empty ring. Words of the two sides are on cache lines of
// their own, two lines apart, because processors fetch lines in pairs.
template <std::unsigned_integral Cursor>
struct RingControl {
  static constexpr std::size_t kApart = 128;

  // Stored by the producer:
  alignas(kApart) std::atomic<Cursor> tail;
  // Apart from the tail, because the consumer loads it more often than it changes.
  alignas(kApart) std::atomic<std::uint32_t> creditRequests;  // counts the producer's requests
  // Stored by the consumer:
  alignas(kApart) std::atomic<Cursor> head;
  alignas(kApart) std::atomic<std::uint32_t> creditGranted;  // the last request granted; a blocked producer waits on it

  static_assert(std::atomic<Cursor>::is_always_lock_free && std::atomic<std::uint32_t>::is_always_lock_free);
};

// The thread sanitizer takes the two mappings of a ring for different memory. These show it that what a thread did
// before it committed a frame happens before what another thread of the process does once it has seen the tail.
#ifdef __SANITIZE_THREAD__
inline std::atomic<unsigned> g_ringCommits{0};
inline void AnnotateCommit() noexcept { g_ringCommits.fetch_add(1, std::memory_order_release); }
inline void AnnotateTailLoad() noexcept { static_cast<void>(g_ringCommits.load(std::memory_order_acquire)); }
#else
inline void AnnotateCommit() noexcept {}
inline void AnnotateTailLoad() noexcept {}
#endif

struct RingFrameHeader {
  std::uint32_t size = 0;  // bytes of the content
  std::uint32_t tag = 0;   // the frame's type; kRingPadding: none

  // Bytes that a frame with so many bytes of content takes up in a ring.
  static constexpr std::uint64_t kAlignment = 8;
  static constexpr std::uint64_t Footprint(std::uint64_t size) {
    return (sizeof(RingFrameHeader) + size + kAlignment - 1) & ~(kAlignment - 1);
  }
};
inline constexpr std::uint32_t kRingPadding = 0;

// What both ends have in common: the ring's bytes, and the position of a cursor among them.
template <std::unsigned_integral Cursor>
class RingEnd {
 public:
  std::size_t Capacity() const noexcept { return m_bytes.size(); }

 protected:
  // bytes: a power of two of them, at least 64, fewer than a Cursor counts; aligned to eight.
  RingEnd(RingControl<Cursor>& control, std::span<std::byte> bytes) : m_control(&control), m_bytes(bytes) {
    if (!std::has_single_bit(bytes.size()) || bytes.size() < 64 || bytes.size() > std::numeric_limits<Cursor>::max()) {
      throw Fault("a ring has an impossible size");
    }
  }

  static Cursor Distance(Cursor from, Cursor to) noexcept { return static_cast<Cursor>(to - from); }
  std::size_t PositionOf(Cursor cursor) const noexcept { return cursor & (m_bytes.size() - 1); }
  std::byte* At(std::size_t position) const noexcept { return m_bytes.data() + position; }
  RingControl<Cursor>& Control() const noexcept { return *m_control; }

 private:
  RingControl<Cursor>* m_control;
  std::span<std::byte> m_bytes;
};

template <std::unsigned_integral Cursor>
class RingProducer : public RingEnd<Cursor> {
 public:
  RingProducer(RingControl<Cursor>& control, std::span<std::byte> bytes) : RingEnd<Cursor>(control, bytes) {}

  // Reserves space for a frame and returns the place of its content, to be written before Commit; null when there is no
  // space. A frame of up to an eighth of the ring finds space whenever a quarter is free.
  std::byte* Reserve(std::size_t size, std::uint32_t tag) {
    const Demand demand = DemandOf(size);
    if (!HasSpaceFor(demand)) {
      return nullptr;
    }
    std::size_t position = this->PositionOf(m_tail);
    if (demand.padding != 0) {
      WriteHeader(position, static_cast<std::uint32_t>(demand.padding - sizeof(RingFrameHeader)), kRingPadding);
      position = 0;
    }
    WriteHeader(position, static_cast<std::uint32_t>(size), tag);
    m_reserved = static_cast<Cursor>(m_tail + demand.Total());
    return this->At(position + sizeof(RingFrameHeader));
  }

  // Publishes the reserved frame.
  void Commit() noexcept {
    Prefetch();
    m_tail = m_reserved;
    AnnotateCommit();
    this->Control().tail.store(m_tail, std::memory_order_release);
  }

  // Makes the last commit sequentially consistent: to be called before looking whether the consumer is parked.
  void FenceCommit() noexcept { this->Control().tail.store(m_tail, std::memory_order_seq_cst); }

  bool HasSpace(std::size_t size) { return HasSpaceFor(DemandOf(size)); }

  // As HasSpace, by the cached head alone: false when that does not tell.
  bool HasSpaceCached(std::size_t size) const noexcept { return DemandOf(size).Total() <= CachedSpace(); }

  // Bytes in use, by the cached head: at least those that are.
  std::size_t UsedCached() const noexcept { return this->Capacity() - CachedSpace(); }

  // Free bytes, of which a frame that wraps may need some for padding.
  std::size_t FreeSpace() {
    LoadHead();
    return CachedSpace();
  }

  // Requests credit, which the consumer grants when half of the ring is free. Look for space once more after this and
  // before waiting. Returns the value of creditGranted that means: not granted yet.
  std::uint32_t RequestCredit() {
    const std::uint32_t granted = this->Control().creditGranted.load(std::memory_order_acquire);
    if (granted == m_creditRequests) {
      this->Control().creditRequests.store(++m_creditRequests, std::memory_order_seq_cst);
    }
    return granted;
  }

 private:
  // What a frame takes up at the present tail.
  struct Demand {
    std::uint64_t padding;
    std::uint64_t footprint;
    std::uint64_t Total() const noexcept { return padding + footprint; }
  };

  Demand DemandOf(std::size_t size) const noexcept {
    const std::uint64_t footprint = RingFrameHeader::Footprint(size);
    const std::uint64_t toEnd = this->Capacity() - this->PositionOf(m_tail);
    return {footprint > toEnd ? toEnd : 0, footprint};
  }

  bool HasSpaceFor(const Demand& demand) {
    if (demand.Total() > CachedSpace()) {
      LoadHead();
    }
    return demand.Total() <= CachedSpace();
  }

  std::size_t CachedSpace() const noexcept { return this->Capacity() - this->Distance(m_cachedHead, m_tail); }

  void LoadHead() {
    const Cursor head = this->Control().head.load(std::memory_order_seq_cst);
    if (this->Distance(head, m_tail) > this->Distance(m_cachedHead, m_tail)) {
      throw Fault("the head of a ring is impossible");
    }
    m_cachedHead = head;
  }

  // Prefetches the lines that the window ahead of the tail takes in while the tail moves past the reserved frame. None
  // in a ring that is not much larger.
  void Prefetch() const noexcept {
    constexpr std::uint64_t kWindow = 512;
    constexpr std::uint64_t kLine = 64;
    if (!tuning::kPrefetch || this->Capacity() < 8 * kWindow) {
      return;
    }
    const std::uint64_t moved = std::min<std::uint64_t>(this->Distance(m_tail, m_reserved), kWindow);
    const Cursor first = static_cast<Cursor>(m_reserved + kWindow - moved);
    for (std::uint64_t offset = -std::uint64_t{first} % kLine; offset < moved; offset += kLine) {
      PrefetchForWrite(this->At(this->PositionOf(static_cast<Cursor>(first + offset))));
    }
  }

  void WriteHeader(std::size_t position, std::uint32_t size, std::uint32_t tag) noexcept {
    const RingFrameHeader header{size, tag};
    std::memcpy(this->At(position), &header, sizeof(header));
  }

  Cursor m_tail = 0;
  Cursor m_reserved = 0;    // the tail after the reserved frame
  Cursor m_cachedHead = 0;  // the head is this or further
  std::uint32_t m_creditRequests = 0;
};

struct RingFrame {
  std::uint32_t tag = 0;
  std::span<const std::byte> content;  // in the ring: a faulty producer may change it at any time
};

template <std::unsigned_integral Cursor>
class RingConsumer : public RingEnd<Cursor> {
 public:
  RingConsumer(RingControl<Cursor>& control, std::span<std::byte> bytes) : RingEnd<Cursor>(control, bytes) {}

  // Loads the tail. Whether there are frames to take.
  bool Poll() {
    const Cursor tail = this->Control().tail.load(std::memory_order_seq_cst);
    AnnotateTailLoad();
    if (tail == m_cachedTail) {
      return m_next != m_cachedTail;
    }
    if (this->Distance(m_next, tail) > this->Capacity() ||
        this->Distance(m_next, tail) < this->Distance(m_next, m_cachedTail) ||
        tail % RingFrameHeader::kAlignment != 0) {
      throw Fault("the tail of a ring is impossible");
    }
    m_cachedTail = tail;
    return true;
  }

  // Takes the next of the frames that the last Poll found; false when none is left. The content may be used until the
  // next call of anything here.
  bool Next(RingFrame& frame) {
    if (this->Distance(m_head, m_next) >= this->Capacity() / kReleases) {
      StoreHead();
    }
    while (m_next != m_cachedTail) {
      RingFrameHeader header;
      const std::size_t position = this->PositionOf(m_next);
      std::memcpy(&header, this->At(position), sizeof(header));
      const std::uint64_t footprint = RingFrameHeader::Footprint(header.size);
      if (footprint > this->Distance(m_next, m_cachedTail) || footprint > this->Capacity() - position) {
        throw Fault("a frame in a ring runs past the end");
      }
      m_next = static_cast<Cursor>(m_next + footprint);
      if (header.tag != kRingPadding) {
        frame = {header.tag, {this->At(position + sizeof(header)), header.size}};
        return true;
      }
    }
    return false;
  }

  // Gives the producer the space of all frames taken. True when credit is due.
  bool Release() noexcept {
    if (m_head != m_next) {
      StoreHead();
    }
    return CreditDue();
  }

  // Whether the producer has requested credit, and half of the ring is free.
  bool CreditDue() const noexcept {
    return this->Control().creditRequests.load(std::memory_order_seq_cst) != m_creditGranted &&
           this->Distance(m_head, m_cachedTail) <= this->Capacity() / 2;
  }

  // Grants what was requested. Returns the word on which a blocked producer waits.
  std::atomic<std::uint32_t>& GrantCredit() noexcept {
    m_creditGranted = this->Control().creditRequests.load(std::memory_order_seq_cst);
    this->Control().creditGranted.store(m_creditGranted, std::memory_order_release);
    return this->Control().creditGranted;
  }

 private:
  // In so many parts is the ring released while frames keep coming.
  static constexpr std::size_t kReleases = 16;

  void StoreHead() noexcept {
    m_head = m_next;
    this->Control().head.store(m_head, std::memory_order_seq_cst);
  }

  Cursor m_next = 0;        // of the next frame to take
  Cursor m_cachedTail = 0;  // the tail is this or further
  Cursor m_head = 0;        // what is released
  std::uint32_t m_creditGranted = 0;
};

}  // namespace engine::transport::host
