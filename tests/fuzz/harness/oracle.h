// What fuzzers hold the code to beside the sanitizers.
#pragma once

#include <sanitizer/allocator_interface.h>
#include <sanitizer/common_interface_defs.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "engine_testing/holdings.h"

namespace fuzz {

// Ends the process when it does not hold, which makes the input a finding.
inline void Require(bool holds, const char* what) {
  if (!holds) {
    std::fprintf(stderr, "==ERROR: the fuzzer requires: %s\n", what);
    std::abort();
  }
}

// That no input leaves a descriptor, a mapping or memory behind.
class Flat {
 public:
  // When memory of an input may be given back: until its end, or by a library's threads also after it. What the fuzzer
  // itself allocates between inputs counts only in the second case, so that the limit is wider.
  enum class Freed { kByTheEnd, kLater };

  explicit Flat(Freed freed = Freed::kByTheEnd) : m_freed(freed) {
    // The fuzzer keeps pipes to its symbolizer from the first time that it names a function.
    std::array<char, 64> name{};
    __sanitizer_symbolize_pc(reinterpret_cast<void*>(&Require), "%f", name.data(), name.size());
    m_held = Holdings::Now();
    m_bytesBefore = __sanitizer_get_current_allocated_bytes();
  }

  void Begin() {
    if (m_freed == Freed::kByTheEnd) {
      m_bytesBefore = __sanitizer_get_current_allocated_bytes();
    }
  }
  void End() {
    const std::size_t bytes = __sanitizer_get_current_allocated_bytes();
    m_grownBytes += static_cast<std::int64_t>(bytes - m_bytesBefore);
    m_bytesBefore = bytes;
    Require(m_grownBytes < (m_freed == Freed::kByTheEnd ? kGrownBytesMax : 4 * kGrownBytesMax),
            "memory does not grow from input to input");
    const Holdings now = Holdings::Now();
    if (!(now == m_held)) {
      std::fprintf(stderr, "%zu descriptors and %zu mappings, which were %zu and %zu\n", now.descriptors, now.mappings,
                   m_held.descriptors, m_held.mappings);
    }
    Require(now == m_held, "descriptors and mappings are given back");
  }

 private:
  using Holdings = engine::transport::host::Holdings;

  // Containers keep some capacity, of which there is an end.
  static constexpr std::int64_t kGrownBytesMax = std::int64_t{4} << 20;

  const Freed m_freed;
  Holdings m_held;
  std::size_t m_bytesBefore = 0;
  std::int64_t m_grownBytes = 0;
};

}  // namespace fuzz
