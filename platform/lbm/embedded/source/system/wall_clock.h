// The time of day at the price of a processor's counter.
#pragma once

#include <cstdint>
#include <ctime>

namespace engine {

// Reads CLOCK_REALTIME where it is read for every message: the kernel's clock once a millisecond, and in between the
// processor's time-stamp counter, whose pace the last two readings of the kernel's clock give. The counter takes less
// time, and nothing behind the reading waits for it. Where the kernel does not trust the counter, or its pace is not
// known yet, every reading is of the kernel's clock.
//
// A reading is off by less than a microsecond; after somebody has set the clock it may be of the old one for a
// millisecond. Like the kernel's it may go back.
//
// Threads: one at a time.
class WallClock {
 public:
  timespec Now() noexcept;

 private:
  // What all clocks said at one moment, read in this order.
  struct Reading {
    std::int64_t sinceBoot = 0;  // nanoseconds, time asleep included
    std::uint64_t ticks = 0;
    std::int64_t timeOfDay = 0;  // nanoseconds
  };

  std::int64_t ReadKernel() noexcept;
  void SetPace(const Reading& last) noexcept;

  Reading m_anchor;
  std::uint64_t m_validTicks = 0;  // in so many from the anchor on the counter tells the time
  std::uint64_t m_pace = 0;        // nanoseconds a tick, in fixed point
};

}  // namespace engine
