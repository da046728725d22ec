// When a consumer that keeps up with its producers pauses before it polls again.
//
// A consumer that takes every frame as soon as it is committed keeps taking the cache lines away to which its producers
// are writing, and all of them wait for each other. While each poll finds a few frames, a pause of less than a
// microsecond lets the producers get ahead. Where a pause brings no more than one frame, because the producer waits for
// an answer to each, there is none for a while, and twice as long each time that this happens again.
#pragma once

#include <algorithm>
#include <cstddef>
#include <utility>

#include "system/processor.h"
#include "system/tuning.h"

namespace engine::transport::host {

class PollBackoff {
 public:
  // Whether to pause before the next poll.
  bool Due() const noexcept { return m_fewInARow == kPollsInARow; }

  static void Pause() noexcept {
    for (int i = 0; i < kSpins; ++i) {
      SpinPause();
    }
  }

  // To be called after each poll, with the number of frames that it found.
  void NotePoll(std::size_t frames) noexcept {
    if (!tuning::kPollBackoff) {
      return;
    }
    if (m_suspended > 0) {
      --m_suspended;
    } else if (Due() && frames == 1) {
      m_fewInARow = 0;
      m_suspended = std::exchange(m_nextSuspension, std::min(2 * m_nextSuspension, kPollsSuspendedMax));
    } else {
      if (Due() && frames > 1) {
        m_nextSuspension = kPollsSuspended;
      }
      NoteFrames(frames);
    }
  }

  static constexpr std::size_t kFewFrames = 64;
  static constexpr int kPollsInARow = 2;  // that found a few frames, before a pause is due
  // Polls without pauses, after a pause that was of no use; and after many such pauses.
  static constexpr int kPollsSuspended = 1000;
  static constexpr int kPollsSuspendedMax = 64 * kPollsSuspended;

 private:
  static constexpr int kSpins = 16;

  void NoteFrames(std::size_t frames) noexcept {
    if (frames == 0 || frames > kFewFrames) {
      m_fewInARow = 0;
    } else if (!Due()) {
      ++m_fewInARow;
    }
  }

  int m_fewInARow = 0;  // polls that found a few frames, up to kPollsInARow
  int m_suspended = 0;  // polls to come without a pause
  int m_nextSuspension = kPollsSuspended;
};

}  // namespace engine::transport::host
