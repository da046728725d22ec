// The shared memory of one ring.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "transport/host/ring/ring.h"
#include "transport/host/ring/shared_memory.h"
#include "zq/posix/descriptor.h"

namespace engine::transport::host {

inline constexpr std::size_t kRingBytesMin = std::size_t{4} << 10;
inline constexpr std::size_t kRingBytesMax = std::size_t{1} << 30;

// Never wraps in practice: at ten gigabytes a second, in half a century.
using RingCursor = std::uint64_t;

// A mapped ring: its control words and its bytes.
class RingMemory {
 public:
  struct Created;
  // A new, empty ring of so many bytes, a power of two. Throws std::system_error.
  static Created Create(std::size_t bytes);

  // A ring that a peer passed. Throws Fault when the memory is no ring, std::system_error when the system refuses to
  // map it.
  explicit RingMemory(const zq::posix::Descriptor& memory);

  RingControl<RingCursor>& Control() const noexcept {
    return *static_cast<RingControl<RingCursor>*>(m_mapping.Address());
  }
  std::span<std::byte> Bytes() const noexcept;

 private:
  Mapping m_mapping;
};

struct RingMemory::Created {
  RingMemory ring;
  zq::posix::Descriptor memory;  // to pass to the consumer
};

}  // namespace engine::transport::host
