// Hints to the processor.
#pragma once

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

}  // namespace engine
