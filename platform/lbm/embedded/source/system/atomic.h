// The atomics of algorithms whose order of accesses an argument depends on, and their ways to wait. Tests compile the
// same code with those of a machine that they control, and try every order in which its stores can become visible.
#pragma once

#ifdef ENGINE_MODEL_OF_ATOMICS
#include ENGINE_MODEL_OF_ATOMICS
#else

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

namespace engine {

template <typename T>
using Atomic = std::atomic<T>;

using Mutex = std::mutex;

// Sleeps while the variable has the value, for a change of which nobody gives notice.
template <typename T>
void SleepWhile(const Atomic<T>& variable, T value, std::chrono::microseconds interval) {
  while (variable.load(std::memory_order_acquire) == value) {
    std::this_thread::sleep_for(interval);
  }
}

}  // namespace engine

#endif
