// How long callbacks take, for little: the clock is read for few of many.
#pragma once

#include <lbm/lbm.h>

#include <cstdint>

#include "zq/statistics/row.h"

namespace lbm::details {

// The monotonic clock by way of the realtime clock, which the library stamps arrivals with: a stamp saves a reading in
// the way of the first callback. The clocks are compared every kBelieved at the least, and a stamp is believed for no
// longer after a reading; so whoever sets the realtime clock makes no time wrong by more than that.
//
// Threads: one at a time.
class LoopClock {
 public:
  std::uint64_t Now() noexcept;

  // When a message arrived that is being delivered, or now when the stamp is not to be believed.
  std::uint64_t OfArrival(const timespec& arrival) noexcept;

  // Callbacks from one look at the clock to the next: as many as fit into some microseconds.
  std::uint64_t Stride() const noexcept { return m_stride; }
  void StrideTook(std::uint64_t nanoseconds) noexcept;

 private:
  static constexpr std::uint64_t kStrideMax = 256;
  static constexpr std::uint64_t kTooShort = 8'000;  // nanoseconds
  static constexpr std::uint64_t kTooLong = 2 * kTooShort;
  static constexpr std::int64_t kBelieved = 10'000'000;  // nanoseconds

  std::int64_t m_read = 0;      // realtime at the last reading; 0: none yet
  std::int64_t m_compared = 0;  // realtime when the clocks were compared
  std::int64_t m_ahead = 0;     // how far the realtime clock was ahead then
  std::uint64_t m_stride = 1;
};

// One call that processes events, from construction to destruction, as the row with loop_field's fields has it. The
// callbacks that the thread makes meanwhile are counted here, but for those of calls within callbacks, which have loops
// of their own.
class Loop {
 public:
  // Of a context, whose callbacks follow one another: the clock is read at the first, at some of the others, and at the
  // end. What lies between two readings is taken for one callback, so the longest may be as long as some short ones.
  Loop(zq::statistics::Row& row, LoopClock& clock) noexcept;
  // Of an event queue, whose callbacks come whenever something arrives: the clock is read before and after each.
  explicit Loop(zq::statistics::Row& row) noexcept;
  ~Loop();
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;

  // The innermost one of the calling thread, or null.
  static Loop* Current() noexcept { return g_current; }

  // Has the calling thread's loops forget a row that is going.
  static void Forget(const zq::statistics::Row& row) noexcept;

  // msg: what is delivered, or null.
  void BeforeCallback(const lbm_msg_t* msg) noexcept {
    if (++m_callbacks == m_nextLook) {
      Look(msg);
    }
  }
  void AfterCallback() noexcept {
    if (m_clock == nullptr) {
      Rest();
    }
  }

 private:
  void Look(const lbm_msg_t* msg) noexcept;
  void Begin(const lbm_msg_t* msg) noexcept;
  void Rest() noexcept;
  std::uint64_t Record() noexcept;
  std::uint64_t Now() noexcept;

  static inline constinit thread_local Loop* g_current = nullptr;

  zq::statistics::Row* m_row;
  LoopClock* m_clock = nullptr;
  Loop* const m_outer;
  std::uint64_t m_callbacks = 0;
  std::uint64_t m_counted = 0;  // of them, in the row
  std::uint64_t m_nextLook = 1;
  std::uint64_t m_lastLook = 0;  // 0: no callback since the beginning or the last rest
};

}  // namespace lbm::details
