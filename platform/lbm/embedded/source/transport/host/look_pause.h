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
  // To be called before a look.
  void pause() const noexcept {
    if (m_looks >= kLooks) {
      for (int i = 0; i < kPauses; ++i) {
        pauseProcessor();
      }
    }
  }

  // To be called after it.
  void note(std::size_t frames) noexcept {
    if (m_looks >= kLooks && frames == 1) {
      m_looks = -kLooksWithout;
    } else if (m_looks < 0) {
      ++m_looks;
    } else if (frames == 0 || frames > kFew) {
      m_looks = 0;
    } else if (m_looks < kLooks) {
      ++m_looks;
    }
  }

 private:
  static constexpr std::size_t kFew = 64;     // frames
  static constexpr int kLooks = 2;            // so many in a row that found a few
  static constexpr int kLooksWithout = 1000;  // after a pause that was of no use
  static constexpr int kPauses = 16;

  int m_looks = 0;  // that found a few; negative: so many more without a pause
};

}  // namespace engine::transport::host
