// How long a context spins before it sleeps when the engine is to choose (spin_time auto).
//
// Whether to go on looking or to pay for sleeping and being woken is the ski-rental problem: who spins for as long as a
// wake-up costs never pays more than twice what was necessary. Foresight makes that better. Traffic has habits, so the
// next wait is expected to be like the last ones, and a wait that would be spun in vain is slept from its beginning.
//
// Sleeping teaches for nothing: a sleep that ends soon is evidence that a spin would have found something. It is not
// proof: two contexts that share one processor wake each other soon, too, but as long as one spins the other cannot
// run. So a spin in vain doubles the evidence that the next one needs, and a spin that finds something halves it.
//
// Threads: the dispatching one only.
#pragma once

#include <algorithm>
#include <chrono>

namespace engine::core {

class AdaptiveSpin {
 public:
  using Duration = std::chrono::nanoseconds;

  // Two wake-ups: in a conversation with a context that sleeps, the answer comes after one, and must be found.
  // wakeUpCost was measured at one moment; a processor that was awake then will be slower out of deep sleep.
  explicit AdaptiveSpin(Duration wakeUpCost) noexcept
      : m_longest(std::clamp<Duration>(2 * wakeUpCost, kLongestMin, kLongestMax)),
        m_shortSleep(m_longest + m_longest / 2) {}

  // How long the wait that begins is to spin: the longest time, or 0.
  Duration Time() const noexcept { return m_evidence >= m_needed ? m_longest : Duration::zero(); }

  // A wait spun for Time() at most, and ended so (found) or not.
  void NoteSpin(bool found) noexcept {
    m_needed = found ? std::max(m_needed / 2, 1) : std::min(2 * m_needed, kNeededMax);
    m_evidence = found ? m_needed : 0;
  }

  // A wait that did not spin ended after so long. found: something came.
  void NoteSleep(bool found, Duration duration) noexcept {
    if (found && duration <= m_shortSleep) {
      m_evidence = std::min(m_evidence + 1, m_needed);
    } else {
      m_evidence = std::max(m_evidence - kCounterEvidence, 0);
    }
  }

  static constexpr Duration kLongestMin = std::chrono::microseconds(20);
  static constexpr Duration kLongestMax = std::chrono::microseconds(100);

 private:
  // At worst one wait in so many spins in vain: a small share of what the sleeps between cost.
  static constexpr int kNeededMax = 1024;
  // Evidence grows when more than four of five sleeps are short. A neighbour that takes the processor now and then does
  // not stop it, nor do pairs of messages far from each other let it grow.
  static constexpr int kCounterEvidence = 4;

  const Duration m_longest;
  const Duration m_shortSleep;  // up to here what came, came within m_longest: half of that is the wake-up itself
  int m_needed = 1;
  int m_evidence = 0;  // short sleeps, up to m_needed
};

}  // namespace engine::core
