#include "transport/host/wake_word.h"

#include <utility>

#include "transport/host/fault.h"

namespace engine::transport::host {

namespace {

constexpr std::size_t kBytes = 4096;  // what can be mapped at least

std::size_t checkedSize(const Descriptor& memory) {
  if (sealedSize(memory) != kBytes) {
    throw Fault("it passed a wake word of an impossible size");
  }
  return kBytes;
}

}  // namespace

WakeWord::WakeWord()
    : m_memory(makeSharedMemory("lbm_wake", kBytes)), m_mapping(m_memory, kBytes, Mapping::Access::readAndWrite) {
  seal(m_memory, Sealing::sizeAndWriting);
  // For the wake words of peers. The first time it takes milliseconds, which nobody waits for now.
  letGlobalBarrierReachUs();
}

void WakeWord::arm() noexcept {
  if (std::exchange(m_frames, 0) >= kBusyAfter && m_canBeBusy) {
    set(m_sleeps, std::memory_order_relaxed);
    globalBarrier();
  }
  m_sleeps += kOneSleep;
  set(m_sleeps | kAsleep, std::memory_order_seq_cst);
}

RemoteWakeWord::RemoteWakeWord(const Descriptor& memory)
    : m_mapping(memory, checkedSize(memory), Mapping::Access::read) {}

}  // namespace engine::transport::host
