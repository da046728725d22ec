// Makes allocations fail.
#pragma once

#include <cstddef>

namespace engine::test {

// While it lives, this thread's operator new succeeds that many times and then throws std::bad_alloc.
class AllocationLimit {
 public:
  explicit AllocationLimit(std::size_t allocations) noexcept;
  ~AllocationLimit();
  AllocationLimit(const AllocationLimit&) = delete;
  AllocationLimit& operator=(const AllocationLimit&) = delete;
};

// Asked before each allocation of any thread whether it fails. Null: none does.
using AllocationJudge = bool (*)() noexcept;
void SetAllocationJudge(AllocationJudge judge) noexcept;

// How many allocations of the process have not been given back.
long LiveAllocations() noexcept;

}  // namespace engine::test
