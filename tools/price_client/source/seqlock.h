// A value that one thread writes without ever waiting and other threads read
// whole.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace price_client {

// The value is kept as words that are atomic each, and a version that is odd
// while a write is going on. A reader that saw a new word, by its acquiring
// load of what the writer released, also sees the version that was made odd
// before it; so equal even versions before and after the words mean that no
// word is of another write.
//
// Threads: Store on one thread only; Load on any.
template <typename T>
class Seqlock {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  void Store(const T& value) noexcept {
    std::array<std::uint64_t, kWords> words{};
    std::memcpy(words.data(), &value, sizeof value);
    const auto version = m_version.load(std::memory_order_relaxed);
    m_version.store(version + 1, std::memory_order_relaxed);
    for (std::size_t i = 0; i < kWords; ++i) {
      m_words[i].store(words[i], std::memory_order_release);
    }
    m_version.store(version + 2, std::memory_order_release);
  }

  T Load() const noexcept {
    std::array<std::uint64_t, kWords> words;
    std::uint64_t before = 0;
    std::uint64_t after = 0;
    do {
      before = m_version.load(std::memory_order_acquire);
      for (std::size_t i = 0; i < kWords; ++i) {
        words[i] = m_words[i].load(std::memory_order_acquire);
      }
      after = m_version.load(std::memory_order_relaxed);
    } while (before != after || before % 2 != 0);
    T value;
    std::memcpy(static_cast<void*>(&value), words.data(), sizeof value);
    return value;
  }

 private:
  static constexpr std::size_t kWords = (sizeof(T) + sizeof(std::uint64_t) - 1) / sizeof(std::uint64_t);

  std::atomic<std::uint64_t> m_version{0};
  std::array<std::atomic<std::uint64_t>, kWords> m_words{};
};

}  // namespace price_client
