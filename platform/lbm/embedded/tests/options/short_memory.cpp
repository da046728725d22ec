#include "short_memory.h"

#include <cstdlib>
#include <limits>
#include <new>

namespace {

constexpr std::size_t kUnlimited = std::numeric_limits<std::size_t>::max();
thread_local std::size_t t_allocationsLeft = kUnlimited;

}  // namespace

namespace engine::test {

AllocationLimit::AllocationLimit(std::size_t allocations) noexcept { t_allocationsLeft = allocations; }
AllocationLimit::~AllocationLimit() { t_allocationsLeft = kUnlimited; }

}  // namespace engine::test

void* operator new(std::size_t size) {
  if (t_allocationsLeft == 0) {
    throw std::bad_alloc();
  }
  if (t_allocationsLeft != kUnlimited) {
    --t_allocationsLeft;
  }
  if (void* const memory = std::malloc(size)) {
    return memory;
  }
  throw std::bad_alloc();
}
// A sanitizer's own would not match the delete below.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return t_allocationsLeft == 0 ? nullptr : std::malloc(size);
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
