// A single-producer, single-consumer queue of frames in memory that two processes share without trusting each other.
//
// The producer appends frames at the tail, the consumer takes them from the head. Both cursors count bytes, run on for
// ever and wrap; their lower bits are a position in the ring. A frame is a header and its content. It starts at a
// multiple of eight bytes and never crosses the end of the ring: where it would, a padding frame fills the end and the
// frame starts at the front.
//
// Memory ordering
//
// 1. Frames. A frame's header is stored last, with release order, and loaded first, with acquire order; behind the last
//    frame there is always a header of zero, which the producer stores before it commits the frame. So the consumer
//    waits for the very cache line in which the frame begins, and a short frame takes one line between the processors.
//    Likewise the consumer stores the head after it has read a frame, and the producer loads the head before it writes
//    there again; it works on a cached copy, and loads the head only when the copy says that nothing is left.
// 2. Parking. A consumer that is about to park stores that in its parking word and then loads the next header; a
//    producer stores the header and then loads the parking word. All four accesses are sequentially consistent, so they
//    have one total order: if the producer's load came before the consumer's store, so did its store of the header, and
//    the consumer sees the frame. Either the consumer does not park or the producer rings its doorbell. A busy consumer
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
#include <span>
#include <utility>

#include "system/atomic.h"
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
  alignas(kApart) Atomic<std::uint32_t> creditRequests;  // counts the producer's requests
  // Stored by the consumer:
  alignas(kApart) Atomic<Cursor> head;
  alignas(kApart) Atomic<std::uint32_t> creditGranted;  // the last request granted; a blocked producer waits on it

  static_assert(Atomic<Cursor>::is_always_lock_free && Atomic<std::uint32_t>::is_always_lock_free);
};

// The thread sanitizer takes the two mappings of a ring for different memory. These show it that what a thread did
// before it committed a frame happens before what another thread of the process does once it has seen the frame.
#ifdef __SANITIZE_THREAD__
inline std::atomic<unsigned> g_ringCommits{0};
inline void AnnotateCommit() noexcept { g_ringCommits.fetch_add(1, std::memory_order_release); }
inline void AnnotateLook() noexcept { static_cast<void>(g_ringCommits.load(std::memory_order_acquire)); }
#else
inline void AnnotateCommit() noexcept {}
inline void AnnotateLook() noexcept {}
#endif

struct RingFrameHeader {
  std::uint32_t size = 0;  // bytes of the content
  std::uint32_t tag = 0;   // the frame's type, or kRingPadding

  // Bytes that a frame with so many bytes of content takes up in a ring.
  static constexpr std::uint64_t kAlignment = 8;
  static constexpr std::uint64_t Footprint(std::uint64_t size) {
    return (sizeof(RingFrameHeader) + size + kAlignment - 1) & ~(kAlignment - 1);
  }
};
inline constexpr std::uint32_t kRingPadding = ~std::uint32_t{0};

// What both ends have in common: the ring's bytes, and the position of a cursor among them.
template <std::unsigned_integral Cursor>
class RingEnd {
 public:
  std::size_t Capacity() const noexcept { return m_bytes.size(); }

 protected:
  using Word = Atomic<std::uint64_t>;  // a header in the ring
  static_assert(sizeof(RingFrameHeader) == sizeof(Word) && Word::is_always_lock_free);

  // bytes: a power of two of them, at least 64, fewer than a Cursor counts; aligned to eight, all zero at first.
  RingEnd(RingControl<Cursor>& control, std::span<std::byte> bytes) : m_control(&control), m_bytes(bytes) {}

  static Cursor Distance(Cursor from, Cursor to) noexcept { return static_cast<Cursor>(to - from); }
  std::size_t PositionOf(Cursor cursor) const noexcept { return cursor & (m_bytes.size() - 1); }
  std::byte* At(std::size_t position) const noexcept { return m_bytes.data() + position; }
  Word& HeaderAt(std::size_t position) const noexcept { return *reinterpret_cast<Word*>(At(position)); }
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
  // space. A frame of up to an eighth of the ring finds space whenever a quarter is free. tag: not one of the ring's
  // own.
  std::byte* Reserve(std::size_t size, std::uint32_t tag) {
    const Demand demand = DemandOf(size);
    if (!HasSpaceFor(demand)) {
      return nullptr;
    }
    m_header = WordOf(size, tag);
    m_reserved = static_cast<Cursor>(m_tail + demand.padding + demand.footprint);
    std::size_t position = this->PositionOf(m_tail);
    if (demand.padding != 0) {
      // Nobody looks at the front before the padding is committed.
      position = 0;
      this->HeaderAt(position).store(m_header, std::memory_order_relaxed);
      m_header = WordOf(demand.padding - sizeof(RingFrameHeader), kRingPadding);
    }
    return this->At(position + sizeof(RingFrameHeader));
  }

  // Publishes the reserved frame.
  void Commit() noexcept {
    Prefetch();
    this->HeaderAt(this->PositionOf(m_reserved)).store(0, std::memory_order_relaxed);
    AnnotateCommit();
    m_committed = this->PositionOf(m_tail);
    this->HeaderAt(m_committed).store(m_header, std::memory_order_release);
    m_tail = m_reserved;
  }

  // Makes the last commit sequentially consistent: to be called before looking whether the consumer is parked.
  void FenceCommit() noexcept { this->HeaderAt(m_committed).store(m_header, std::memory_order_seq_cst); }

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
  // What a frame takes up at the present tail, beside the header of zero behind it.
  struct Demand {
    std::uint64_t padding;
    std::uint64_t footprint;
    std::uint64_t Total() const noexcept { return padding + footprint + sizeof(RingFrameHeader); }
  };

  static std::uint64_t WordOf(std::uint64_t size, std::uint32_t tag) noexcept {
    return std::bit_cast<std::uint64_t>(RingFrameHeader{static_cast<std::uint32_t>(size), tag});
  }

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

  Cursor m_tail = 0;
  Cursor m_reserved = 0;        // the tail after the reserved frame
  std::uint64_t m_header = 0;   // of that frame, or of the padding before it
  std::size_t m_committed = 0;  // the position at which the last one was stored
  Cursor m_cachedHead = 0;      // the head is this or further
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

  // Whether there are frames to take.
  bool Poll() noexcept {
    m_polled = m_next;
    return Any();
  }

  // Takes the next frame; false when there is none, or as much has been taken since the last Poll as the ring can hold.
  // The content may be used until the next call of anything here.
  bool Next(RingFrame& frame) {
    if (this->Distance(m_head, m_next) >= this->Capacity() / kReleases) {
      StoreHead();
    }
    while (this->Distance(m_polled, m_next) < this->Capacity()) {
      const std::size_t position = this->PositionOf(m_next);
      const std::uint64_t word = this->HeaderAt(position).load(std::memory_order_acquire);
      AnnotateLook();
      if (word == 0) {
        return false;
      }
      const auto header = std::bit_cast<RingFrameHeader>(word);
      m_taken = m_next;
      const std::uint64_t footprint = RingFrameHeader::Footprint(header.size);
      if (footprint > this->Capacity() - position) {
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

  // Has the frame that was taken last be the next one again.
  void PutBack() noexcept { m_next = m_taken; }

  // Gives the producer the space of all frames taken. True when credit is due.
  bool Release() noexcept {
    if (m_head != m_next) {
      StoreHead();
    }
    return CreditDue();
  }

  // Whether the producer has requested credit, and half of the ring is free: nothing is left, or so much was released
  // since the request was seen.
  bool CreditDue() noexcept {
    if (this->Control().creditRequests.load(std::memory_order_seq_cst) == m_creditGranted) {
      return false;
    }
    if (!std::exchange(m_creditRequested, true)) {
      m_headAtRequest = m_head;
    }
    return !Any() || this->Distance(m_headAtRequest, m_head) >= this->Capacity() / 2;
  }

  // Grants what was requested. Returns the word on which a blocked producer waits.
  Atomic<std::uint32_t>& GrantCredit() noexcept {
    m_creditRequested = false;
    m_creditGranted = this->Control().creditRequests.load(std::memory_order_seq_cst);
    this->Control().creditGranted.store(m_creditGranted, std::memory_order_release);
    return this->Control().creditGranted;
  }

 private:
  // In so many parts is the ring released while frames keep coming.
  static constexpr std::size_t kReleases = 16;

  bool Any() const noexcept {
    const bool any = this->HeaderAt(this->PositionOf(m_next)).load(std::memory_order_seq_cst) != 0;
    AnnotateLook();
    return any;
  }

  void StoreHead() noexcept {
    m_head = m_next;
    this->Control().head.store(m_head, std::memory_order_seq_cst);
  }

  Cursor m_next = 0;    // of the next frame to take
  Cursor m_taken = 0;   // of the last one that was taken
  Cursor m_polled = 0;  // what that was at the last Poll
  Cursor m_head = 0;    // what is released
  std::uint32_t m_creditGranted = 0;
  bool m_creditRequested = false;  // and not granted yet
  Cursor m_headAtRequest = 0;      // when that was seen
};

}  // namespace engine::transport::host
