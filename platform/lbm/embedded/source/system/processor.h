// Hints to the processor, and its counter.
#pragma once

#include <cstdint>

namespace engine {

// The calling thread spins: lets the other hardware thread of the core run and saves power.
inline void SpinPause() noexcept {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

// The cache line will soon be written. Any address is allowed.
inline void PrefetchForWrite(void* line) noexcept {
#if defined(__x86_64__)
  // Fetches the line for exclusive ownership; the builtin would leave it shared with the processor that last read it.
  asm volatile("prefetchw %0" : : "m"(*static_cast<const char*>(line)));
#else
  __builtin_prefetch(line, 1);
#endif
}

// The time-stamp counter, in no order with what stands around it; 0 where there is none.
inline std::uint64_t ReadTicks() noexcept {
#if defined(__x86_64__)
  return __builtin_ia32_rdtsc();
#else
  return 0;
#endif
}

}  // namespace engine
