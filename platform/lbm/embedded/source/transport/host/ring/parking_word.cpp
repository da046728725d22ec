#include "transport/host/ring/parking_word.h"

#include <utility>

#include "transport/fault.h"

namespace engine::transport::host {

namespace {

constexpr std::size_t kBytes = 4096;  // the least that can be mapped

std::size_t CheckedSize(const zq::posix::Descriptor& memory) {
  if (SealedSize(memory) != kBytes) {
    throw Fault("it passed a parking word of an impossible size");
  }
  return kBytes;
}

}  // namespace

ParkingWord::ParkingWord()
    : m_memory(MakeSharedMemory("lbm_parking", kBytes)), m_mapping(m_memory, kBytes, Mapping::Access::kReadAndWrite) {
  Seal(m_memory, Sealing::kSizeAndWriting);
  // For the parking words of peers. The first registration takes milliseconds, for which nobody is waiting now.
  RegisterForGlobalFences();
}

void ParkingWord::Park() noexcept {
  if (std::exchange(m_consumed, 0) >= kBusyAfter && m_canBeBusy) {
    Store(m_epoch, std::memory_order_relaxed);
    HeavyGlobalFence();
  }
  m_epoch += kNextEpoch;
  Store(m_epoch | kParked, std::memory_order_seq_cst);
}

PeerParkingWord::PeerParkingWord(const zq::posix::Descriptor& memory)
    : m_mapping(memory, CheckedSize(memory), Mapping::Access::kRead) {}

}  // namespace engine::transport::host
