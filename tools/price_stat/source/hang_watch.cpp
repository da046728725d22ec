#include "hang_watch.h"

#include <utility>

#include "system_process.h"

namespace price_stat {

void HangWatch::Judge(std::vector<Process>& processes) {
  m_hasDoubts = false;
  std::map<Key, Loops> now;
  for (auto& process : processes) {
    for (auto& context : process.contexts) {
      Judge(process, context, now);
    }
    JudgeByContexts(process);
  }
  m_loops = std::move(now);
}

void HangWatch::Judge(const Process& process, Context& context, std::map<Key, Loops>& now) {
  // Events of a context that has never looped are processed by somebody who does not count loops.
  if (!process.IsAlive() || process.state == State::kStopped || context.loops.value_or(0) == 0) {
    return;
  }
  const auto& snapshot = *process.snapshot;
  const Key key{process.path, snapshot.startMonotonic, context.handle};
  Loops& loops = now[key];
  loops = {.count = *context.loops, .since = snapshot.takenMonotonic};
  if (const auto before = m_loops.find(key); before != m_loops.end()) {
    if (before->second.count == loops.count) {
      loops = before->second;
    } else {
      loops.goesOn = true;
    }
  }
  const bool waits = process.inOurProc && context.thread > 0 && WaitsForDescriptors(snapshot.process, context.thread);
  if (context.state != State::kRunning || waits) {
    return;
  }
  m_hasDoubts = m_hasDoubts || !loops.goesOn;
  if (const auto still = snapshot.takenMonotonic - loops.since; still >= kHangNanoseconds) {
    context.state = State::kNotLooping;
    context.hangNanoseconds = still;
  }
}

}  // namespace price_stat
