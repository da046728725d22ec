// Memory between pages that nobody may touch.
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <cstring>
#include <span>

#include "harness/oracle.h"

namespace fuzz {

// So many bytes, which end where the page behind them begins.
template <std::size_t kBytes>
class GuardedMemory {
 public:
  GuardedMemory() {
    m_mapping = ::mmap(nullptr, kMappedBytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    Require(m_mapping != MAP_FAILED && ::mprotect(At(kPage), kPages, PROT_READ | PROT_WRITE) == 0, "there is memory");
  }
  ~GuardedMemory() { ::munmap(m_mapping, kMappedBytes); }
  GuardedMemory(const GuardedMemory&) = delete;
  GuardedMemory& operator=(const GuardedMemory&) = delete;

  std::span<std::byte> Bytes() const { return {At(kPage + kPages - kBytes), kBytes}; }
  void Clear() const { std::memset(Bytes().data(), 0, kBytes); }

 private:
  static constexpr std::size_t kPage = 4096;
  static constexpr std::size_t kPages = (kBytes + kPage - 1) / kPage * kPage;
  static constexpr std::size_t kMappedBytes = kPages + 2 * kPage;

  std::byte* At(std::size_t offset) const { return static_cast<std::byte*>(m_mapping) + offset; }

  void* m_mapping = nullptr;
};

}  // namespace fuzz
