// The atomics of algorithms whose order of accesses an argument depends on. Tests compile the same code with atomics of
// a machine that they control, and try every order in which its stores can become visible.
#pragma once

#ifdef ENGINE_MODEL_OF_ATOMICS
#include ENGINE_MODEL_OF_ATOMICS
#else

#include <atomic>

namespace engine {

template <typename T>
using Atomic = std::atomic<T>;

}  // namespace engine

#endif
