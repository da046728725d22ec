// A count that one thread writes and any thread reads.
#pragma once

#include <atomic>
#include <cstdint>

namespace price_client {

// Threads: Add and Set on one thread only, so that they need no locked
// instruction; Get on any.
class Counter {
 public:
  void Add(std::uint64_t amount = 1) noexcept { Set(Get() + amount); }
  void Set(std::uint64_t value) noexcept { m_value.store(value, std::memory_order_relaxed); }
  std::uint64_t Get() const noexcept { return m_value.load(std::memory_order_relaxed); }

 private:
  std::atomic<std::uint64_t> m_value{0};
};

}  // namespace price_client
