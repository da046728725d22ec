// Hints to the processor.
#pragma once

namespace engine {

// This is a loop that waits.
inline void PauseProcessor() noexcept {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

// The cache line will soon be read, or written. Any address is allowed.
inline void PrefetchToRead(const void* line) noexcept { __builtin_prefetch(line); }
inline void PrefetchToWrite(void* line) noexcept {
#if defined(__x86_64__)
  // The builtin would not take the line away from the processor that last read it.
  asm volatile("prefetchw %0" : : "m"(*static_cast<const char*>(line)));
#else
  __builtin_prefetch(line, 1);
#endif
}

}  // namespace engine
