// Makes allocations of a thread fail.
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

}  // namespace engine::test
