// A machine whose stores become visible late and out of order, and on which every execution of a few short threads can
// be tried.
//
// Each thread has a buffer of stores that nobody else sees. A store leaves it at any later moment: one with release
// order after all that precede it, a relaxed one after those to the same address. A sequentially consistent store, and
// a heavy fence for all threads, empties the buffer at once. Loads are in order, and see the thread's own buffer first.
// That is weaker than x86-64, where stores leave in order, and says nothing about machines that reorder loads.
//
// The threads are real, but only one at a time runs, and each waits for its turn before every access at which it
// matters what the others have done: not for a store into its buffer, nor a load from there.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <type_traits>
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

// Tries all executions, until one of them fails the test. Returns how many there were. Ends the process when the
// threads of one wait for ever.
std::size_t TryAllExecutions(const Scenario& scenario);

// For what a thread has done before the others begin: its accesses act at once, and nothing comes between them. Only at
// the beginning of a thread's function.
void Before(const std::function<void()>& function);

// For Atomic and the fences. Outside of an execution's threads they act at once.
std::uint64_t Load(const void* address, std::size_t size);
void Store(void* address, std::size_t size, std::uint64_t value, std::memory_order order);
// Stores at once what becomes of the value that is there, which it returns.
std::uint64_t Update(void* address, std::size_t size, const std::function<std::uint64_t(std::uint64_t)>& next);
void FenceEverybody();
// Until somebody gives notice of the address and it has another value.
void AwaitChange(const void* address, std::size_t size, std::uint64_t from);
void Notify(const void* address);
// Until it has another value.
void AwaitOther(const void* address, std::size_t size, std::uint64_t from);

}  // namespace engine::model

namespace engine {

template <typename T>
class Atomic {
 public:
  static_assert(std::is_trivially_copyable_v<T> && sizeof(T) <= sizeof(std::uint64_t));
  static constexpr bool is_always_lock_free = true;

  Atomic() noexcept = default;
  explicit Atomic(T value) noexcept : m_value(value) {}

  T load(std::memory_order = std::memory_order_seq_cst) const noexcept {
    return Back(model::Load(&m_value, sizeof(T)));
  }
  void store(T value, std::memory_order order = std::memory_order_seq_cst) noexcept {
    model::Store(&m_value, sizeof(T), Bits(value), order);
  }
  T exchange(T value) noexcept {
    return Back(model::Update(&m_value, sizeof(T), [=](std::uint64_t) { return Bits(value); }));
  }
  T fetch_add(T value) noexcept {
    return Back(model::Update(&m_value, sizeof(T), [=](std::uint64_t before) { return before + Bits(value); }));
  }
  T fetch_sub(T value) noexcept {
    return Back(model::Update(&m_value, sizeof(T), [=](std::uint64_t before) { return before - Bits(value); }));
  }
  void wait(T from) const noexcept { model::AwaitChange(&m_value, sizeof(T), Bits(from)); }
  void notify_all() noexcept { model::Notify(&m_value); }
  void AwaitOther(T from) const noexcept { model::AwaitOther(&m_value, sizeof(T), Bits(from)); }

 private:
  static std::uint64_t Bits(T value) noexcept {
    std::uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof(T));
    return bits;
  }
  static T Back(std::uint64_t bits) noexcept {
    T value;
    std::memcpy(&value, &bits, sizeof(T));
    return value;
  }

  T m_value{};
};

class Mutex {
 public:
  void lock() noexcept {
    while (m_locked.exchange(true)) {
      m_locked.AwaitOther(true);
    }
  }
  void unlock() noexcept { m_locked.store(false, std::memory_order_release); }

 private:
  Atomic<bool> m_locked;
};

template <typename T>
void SleepWhile(const Atomic<T>& variable, T value, std::chrono::microseconds) {
  variable.AwaitOther(value);
}

}  // namespace engine
