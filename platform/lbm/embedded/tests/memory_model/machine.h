// A machine whose stores become visible late and out of order, and on which every execution of a few short threads can
// be tried.
//
// Each thread has a buffer of stores that nobody else sees. A store leaves it at any later moment: one with release
// order after all that precede it, a relaxed one after those to the same address. A sequentially consistent store, and
// a heavy fence for all threads, empties the buffer at once. Loads are in order, and see the thread's own buffer first.
// That is weaker than x86-64, where stores leave in order, and says nothing about machines that reorder loads.
//
// The threads are real, but only one at a time runs, and each waits for its turn before every access at which it matters
// what the others have done: not for a store into its buffer, nor a load from there.
#pragma once

#include <atomic>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace engine::model {

// What an execution is made of. The threads' functions reach shared memory through Atomic alone; what a function leaves
// behind beside that is for verify, which is called when all have returned and every store is visible. prepare comes
// first, and builds the shared objects anew.
struct Scenario {
  std::function<void()> prepare;
  std::vector<std::function<void()>> threads;
  std::function<void()> verify;
};

// Tries all executions, until one of them fails the test. Returns how many there were.
std::size_t TryAllExecutions(const Scenario& scenario);

// For Atomic and the fences. Outside of an execution's threads they act at once.
std::uint64_t Load(const void* address, std::size_t size);
void Store(void* address, std::size_t size, std::uint64_t value, std::memory_order order);
void FenceEverybody();

}  // namespace engine::model

namespace engine {

template <std::unsigned_integral T>
class Atomic {
 public:
  static constexpr bool is_always_lock_free = true;

  T load(std::memory_order = std::memory_order_seq_cst) const noexcept {
    return static_cast<T>(model::Load(&m_value, sizeof(T)));
  }
  void store(T value, std::memory_order order = std::memory_order_seq_cst) noexcept {
    model::Store(&m_value, sizeof(T), value, order);
  }

 private:
  T m_value;
};

}  // namespace engine
