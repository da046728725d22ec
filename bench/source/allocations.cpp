#include <atomic>
#include <cstdlib>
#include <new>

#include "bench/bench.h"

namespace {

std::atomic<std::uint64_t> g_allocations{0};

void* Allocate(std::size_t size) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* const memory = std::malloc(size)) {
    return memory;
  }
  throw std::bad_alloc();
}

}  // namespace

// The array and nothrow forms of the standard library call these.
void* operator new(std::size_t size) { return Allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace bench {

AllocationCounter::AllocationCounter(benchmark::State& state) noexcept
    : m_state(state), m_before(g_allocations.load(std::memory_order_relaxed)) {}

void AllocationCounter::Report() {
  const auto count = g_allocations.load(std::memory_order_relaxed) - m_before;
  m_state.counters["allocations"] = benchmark::Counter(static_cast<double>(count), benchmark::Counter::kAvgIterations);
}

}  // namespace bench
