// Memory barriers that one thread has put into others, so that those need none of their own.
//
// A thread's store and its next load of something else may take effect in the other order. Where two sides decide by
// what they see of each other, each of them needs a full barrier between the two; on the way of every message that
// costs more than much of the rest. When one side passes seldom, it can have the system put a barrier into the threads
// of the other side wherever they are at the time. That costs some microseconds, and nothing the other side, which only
// has to keep the compiler from exchanging the two accesses: keepOrder().
#pragma once

#include <atomic>

namespace engine {

inline void KeepOrder() noexcept { std::atomic_signal_fence(std::memory_order_seq_cst); }

// Threads of this process:
bool ProcessBarrierWorks() noexcept;
void ProcessBarrier() noexcept;  // only when it works

// Threads of all processes that let them be reached. A process does so for the rest of its life.
bool LetGlobalBarrierReachUs() noexcept;  // false when the system cannot
bool GlobalBarrierWorks() noexcept;
void GlobalBarrier() noexcept;  // only when it works

}  // namespace engine
