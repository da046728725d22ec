// What benchmark programs share.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>

namespace bench {

// Names the benchmark of the same program that this one is measured against. The report shows the ratio to it and the
// difference from it.
void CompareWith(benchmark::State& state, const char* baseline);

// Counts what the process takes from the heap from its construction on. Reported as "allocations", per iteration.
//
// Threads: allocations of all threads are counted.
class AllocationCounter {
 public:
  explicit AllocationCounter(benchmark::State& state) noexcept;

  // Reports to the state; called after its loop.
  void Report();

 private:
  benchmark::State& m_state;
  std::uint64_t m_before;
};

}  // namespace bench
