// What the processes of one measurement share: how far it has come, and what each has counted.
#pragma once

#include <sys/mman.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "zq/posix/error.h"

namespace compare {

using Clock = std::chrono::steady_clock;

enum class Phase : std::uint32_t { kPreparing, kWarmUp, kMeasuring, kDraining, kOver };

inline constexpr std::size_t kReceiversMax = 64;
inline constexpr std::size_t kSendersMax = 64;
inline constexpr std::size_t kSamplesMax = 1 << 20;
inline constexpr std::size_t kCacheLine = 64;

// Each has one writer and a cache line of its own.
struct alignas(kCacheLine) ReceiverCount {
  std::atomic<std::uint64_t> probes{
      0};  // a bit for each sender that it has got a probe of: its subscription is in force
  std::atomic<std::uint64_t> whole{0};    // messages that arrived with the right length, beginning and end
  std::atomic<std::uint64_t> damaged{0};  // all others
  double rate = 0;                        // whole messages a second while measuring
};

// How long the round trips took.
struct alignas(kCacheLine) Samples {
  std::size_t count = 0;
  std::array<std::uint32_t, kSamplesMax> nanoseconds;
};

struct Control {
  alignas(kCacheLine) std::atomic<Phase> phase{Phase::kPreparing};
  std::atomic<std::uint32_t> idlePeersReady{0};
  alignas(kCacheLine) std::atomic<std::uint64_t> sent{0};  // in all, set when the last one is sent
  std::array<ReceiverCount, kReceiversMax> receivers;
  Samples samples;
};

// Memory that processes forked from this one share with it.
template <class T>
class Shared {
 public:
  Shared() {
    void* memory = ::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
      zq::posix::ThrowErrno("cannot map shared memory");
    }
    m_value = std::construct_at(static_cast<T*>(memory));
  }
  ~Shared() { ::munmap(m_value, sizeof(T)); }
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;

  T& operator*() const noexcept { return *m_value; }
  T* operator->() const noexcept { return m_value; }

 private:
  T* m_value;
};

}  // namespace compare
