// Asymmetric fences: a full memory fence between two threads of which one pays for both.
//
// Where two threads each store one word and then load the other's (Dekker's pattern), both need a sequentially
// consistent fence between the two accesses, or each may miss what the other stored. When one side runs for every
// message and the other seldom, the frequent side makes do with LightFence(), which only keeps the compiler from
// reordering, and the rare side issues a heavy fence, with which the kernel executes a full fence on every processor
// that runs a thread of the other side (membarrier). A heavy fence costs microseconds and interrupts those processors.
#pragma once

#include <atomic>

namespace engine {

inline void LightFence() noexcept { std::atomic_signal_fence(std::memory_order_seq_cst); }

// Among the threads of this process. Availability is asked of the kernel once.
bool ProcessFenceAvailable() noexcept;
void HeavyProcessFence() noexcept;  // only when available

// Among the threads of all processes that have registered. A process stays registered for the rest of its life.
bool RegisterForGlobalFences() noexcept;  // false when the kernel cannot: then no heavy fence reaches this process
bool GlobalFenceAvailable() noexcept;
void HeavyGlobalFence() noexcept;  // only when available

}  // namespace engine
