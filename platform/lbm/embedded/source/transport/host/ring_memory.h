// The shared memory of one ring.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "transport/host/ring.h"
#include "transport/host/shared_memory.h"
#include "zq/posix/descriptor.h"

namespace engine::transport::host {

inline constexpr std::size_t kRingBytesMin = std::size_t{4} << 10;
inline constexpr std::size_t kRingBytesMax = std::size_t{1} << 30;

// Runs through its values in no time that matters.
using RingCounter = std::uint64_t;

class RingMemory {
 public:
  struct Made;
  // A new ring of so many bytes, a power of two, and the descriptor to pass on. Throws std::system_error.
  static Made Make(std::size_t bytes);

  // A ring that came from a peer. Throws Fault when it is none, std::system_error when the system refuses.
  explicit RingMemory(const zq::posix::Descriptor& memory);

  RingControl<RingCounter>& Control() const noexcept {
    return *static_cast<RingControl<RingCounter>*>(m_mapping.Address());
  }
  std::span<std::byte> Bytes() const noexcept;

 private:
  Mapping m_mapping;
};

struct RingMemory::Made {
  RingMemory ring;
  zq::posix::Descriptor memory;
};

}  // namespace engine::transport::host
