#include "transport/host/wake_word.h"

#include <utility>

#include "transport/host/fault.h"

namespace engine::transport::host {

namespace {

constexpr std::size_t kBytes = 4096;  // what can be mapped at least

std::size_t CheckedSize(const zq::posix::Descriptor& memory) {
  if (SealedSize(memory) != kBytes) {
    throw Fault("it passed a wake word of an impossible size");
  }
  return kBytes;
}

}  // namespace

WakeWord::WakeWord()
    : m_memory(MakeSharedMemory("lbm_wake", kBytes)), m_mapping(m_memory, kBytes, Mapping::Access::kReadAndWrite) {
  Seal(m_memory, Sealing::kSizeAndWriting);
  // For the wake words of peers. The first time it takes milliseconds, which nobody waits for now.
  LetGlobalBarrierReachUs();
}

void WakeWord::Arm() noexcept {
  if (std::exchange(m_frames, 0) >= kBusyAfter && m_canBeBusy) {
    Set(m_sleeps, std::memory_order_relaxed);
    GlobalBarrier();
  }
  m_sleeps += kOneSleep;
  Set(m_sleeps | kAsleep, std::memory_order_seq_cst);
}

RemoteWakeWord::RemoteWakeWord(const zq::posix::Descriptor& memory)
    : m_mapping(memory, CheckedSize(memory), Mapping::Access::kRead) {}

}  // namespace engine::transport::host
