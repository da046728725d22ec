#include "short_memory.h"

#include <atomic>
#include <cstdlib>
#include <limits>
#include <new>

namespace {

constexpr std::size_t kUnlimited = std::numeric_limits<std::size_t>::max();
thread_local std::size_t t_allocationsLeft = kUnlimited;
constinit std::atomic<engine::test::AllocationJudge> g_judge{nullptr};
constinit std::atomic<long> g_live{0};

void* Allocate(std::size_t size) noexcept {
  if (const auto judge = g_judge.load(std::memory_order_relaxed); judge != nullptr && judge()) {
    return nullptr;
  }
  if (t_allocationsLeft == 0) {
    return nullptr;
  }
  if (t_allocationsLeft != kUnlimited) {
    --t_allocationsLeft;
  }
  void* const memory = std::malloc(size);
  g_live.fetch_add(memory != nullptr ? 1 : 0, std::memory_order_relaxed);
  return memory;
}

void Free(void* memory) noexcept {
  g_live.fetch_sub(memory != nullptr ? 1 : 0, std::memory_order_relaxed);
  std::free(memory);
}

}  // namespace

namespace engine::test {

AllocationLimit::AllocationLimit(std::size_t allocations) noexcept { t_allocationsLeft = allocations; }
AllocationLimit::~AllocationLimit() { t_allocationsLeft = kUnlimited; }

void SetAllocationJudge(AllocationJudge judge) noexcept { g_judge = judge; }

long LiveAllocations() noexcept { return g_live; }

}  // namespace engine::test

void* operator new(std::size_t size) {
  if (void* const memory = Allocate(size)) {
    return memory;
  }
  throw std::bad_alloc();
}
// A sanitizer's own would not match the delete below.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return Allocate(size); }
void operator delete(void* memory) noexcept { Free(memory); }
void operator delete(void* memory, std::size_t) noexcept { Free(memory); }
