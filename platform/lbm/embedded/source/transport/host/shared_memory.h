// Memory that two processes share by passing a descriptor. Its size is sealed, so neither side can take pages away from
// under the other's feet.
#pragma once

#include <cstddef>
#include <utility>

#include "zq/posix/descriptor.h"

namespace engine::transport::host {

// Memory in this process's address space.
class Mapping {
 public:
  enum class Access { kRead, kReadAndWrite };

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

// Makes zeroed memory that is really there: it cannot run out when it is first touched. name: as the system shows it.
// Throws std::system_error.
zq::posix::Descriptor MakeSharedMemory(const char* name, std::size_t size);

// After this nobody can change the size; with forbidWriting, nor can anybody write but through mappings that exist.
// Throws std::system_error.
enum class Sealing { kSize, kSizeAndWriting };
void Seal(const zq::posix::Descriptor& memory, Sealing sealing);

// The size of memory that came from a peer. Throws Fault when it is not memory whose size is sealed.
std::size_t SealedSize(const zq::posix::Descriptor& memory);

}  // namespace engine::transport::host
