#include "transport/host/ring_memory.h"

#include <bit>
#include <utility>

namespace engine::transport::host {

namespace {

// A page, so that the ring's bytes begin at one.
constexpr std::size_t kControlBytes = 4096;
static_assert(sizeof(RingControl<RingCounter>) <= kControlBytes);

std::size_t checkedSize(const Descriptor& memory) {
  const std::size_t size = sealedSize(memory);
  if (size < kControlBytes + kRingBytesMin || size > kControlBytes + kRingBytesMax ||
      !std::has_single_bit(size - kControlBytes)) {
    throw Fault("it passed a ring of an impossible size");
  }
  return size;
}

}  // namespace

RingMemory::Made RingMemory::make(std::size_t bytes) {
  Descriptor memory = makeSharedMemory("lbm_ring", kControlBytes + bytes);
  seal(memory, Sealing::size);
  RingMemory ring(memory);
  return {std::move(ring), std::move(memory)};
}

RingMemory::RingMemory(const Descriptor& memory)
    : m_mapping(memory, checkedSize(memory), Mapping::Access::readAndWrite) {}

std::span<std::byte> RingMemory::bytes() const noexcept {
  return {static_cast<std::byte*>(m_mapping.address()) + kControlBytes, m_mapping.size() - kControlBytes};
}

}  // namespace engine::transport::host
