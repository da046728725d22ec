#include "transport/host/ring/ring_memory.h"

#include <bit>
#include <utility>

namespace engine::transport::host {

namespace {

// A page for the control words, so that the ring's bytes start at a page.
constexpr std::size_t kControlBytes = 4096;
static_assert(sizeof(RingControl<RingCursor>) <= kControlBytes);

std::size_t CheckedSize(const zq::posix::Descriptor& memory) {
  const std::size_t size = SealedSize(memory);
  if (size < kControlBytes + kRingBytesMin || size > kControlBytes + kRingBytesMax ||
      !std::has_single_bit(size - kControlBytes)) {
    throw Fault("it passed a ring of an impossible size");
  }
  return size;
}

}  // namespace

RingMemory::Created RingMemory::Create(std::size_t bytes) {
  zq::posix::Descriptor memory = MakeSharedMemory("lbm_ring", kControlBytes + bytes);
  Seal(memory, Sealing::kSize);
  RingMemory ring(memory);
  return {std::move(ring), std::move(memory)};
}

RingMemory::RingMemory(const zq::posix::Descriptor& memory)
    : m_mapping(memory, CheckedSize(memory), Mapping::Access::kReadAndWrite) {}

std::span<std::byte> RingMemory::Bytes() const noexcept {
  return {static_cast<std::byte*>(m_mapping.Address()) + kControlBytes, m_mapping.Size() - kControlBytes};
}

}  // namespace engine::transport::host
