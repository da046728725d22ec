// When a reader of rings gives their writers time before it looks again.
//
// A reader that keeps up frame by frame takes the cache lines away from the writers in which they write, and all of
// them wait for each other. If it finds a few frames each time that it looks, it does better to pause: less than a
// microsecond, in which writers get ahead. Where a pause brings no more than one frame, as when the writer waits for an
// answer to each, there is none for a while.
#pragma once

#include <cstddef>

#include "system/processor.h"

namespace engine::transport::host {

class LookPause {
 public:
  // Whether there is to be one before the next look.
  bool Due() const noexcept { return m_few == kLooks; }

  static void Pass() noexcept {
    for (int i = 0; i < kPauses; ++i) {
      PauseProcessor();
    }
  }

  // To be called after each look.
  void Note(std::size_t frames) noexcept {
    if (m_without > 0) {
      --m_without;
    } else if (Due() && frames == 1) {
      m_few = 0;
      m_without = kLooksWithout;
    } else if (frames == 0 || frames > kFewFrames) {
      m_few = 0;
    } else if (!Due()) {
      ++m_few;
    }
  }

  static constexpr std::size_t kFewFrames = 64;
  static constexpr int kLooks = 2;            // so many in a row that found a few
  static constexpr int kLooksWithout = 1000;  // after a pause that was of no use

 private:
  static constexpr int kPauses = 16;

  int m_few = 0;      // looks in a row that found a few, up to kLooks
  int m_without = 0;  // looks to come without a pause
};

}  // namespace engine::transport::host
