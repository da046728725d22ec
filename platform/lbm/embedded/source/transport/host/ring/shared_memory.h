// Memory that two processes share by passing a descriptor. Its size is sealed, so that neither side can take pages away
// that the other one has mapped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "zq/posix/descriptor.h"

namespace engine::transport::host {

// A mapping of such memory into this process's address space.
class Mapping {
 public:
  enum class Access : std::uint8_t { kRead, kReadAndWrite };

  Mapping() = default;
  // Throws std::system_error.
  Mapping(const zq::posix::Descriptor& memory, std::size_t size, Access access);
  Mapping(Mapping&& other) noexcept
      : m_address(std::exchange(other.m_address, nullptr)), m_size(std::exchange(other.m_size, 0)) {}
  Mapping& operator=(Mapping other) noexcept {
    std::swap(m_address, other.m_address);
    std::swap(m_size, other.m_size);
    return *this;
  }
  ~Mapping();

  void* Address() const noexcept { return m_address; }
  std::size_t Size() const noexcept { return m_size; }

 private:
  void* m_address = nullptr;
  std::size_t m_size = 0;
};

// Makes zeroed memory whose pages are allocated, so that touching it cannot fail for want of memory. name: shown by the
// system. Throws std::system_error.
zq::posix::Descriptor MakeSharedMemory(const char* name, std::size_t size);

// Seals the size; with kSizeAndWriting also the contents, except through writable mappings that exist already. Throws
// std::system_error.
enum class Sealing : std::uint8_t { kSize, kSizeAndWriting };
void Seal(const zq::posix::Descriptor& memory, Sealing sealing);

// The size of memory that a peer passed. Throws Fault when it is not memory of a sealed size.
std::size_t SealedSize(const zq::posix::Descriptor& memory);

}  // namespace engine::transport::host
