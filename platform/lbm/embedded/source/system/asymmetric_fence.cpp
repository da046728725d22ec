#include "system/asymmetric_fence.h"

#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <thread>

namespace engine {

namespace {

long Membarrier(int command) noexcept { return ::syscall(SYS_membarrier, command, 0, 0); }

// For commands that have worked before. The kernel may refuse them all the same: because the process has filtered its
// system calls since, or for lack of memory. Then nothing says when the other threads' stores become visible, but
// stores leave a processor's buffer by themselves, in far less time than this.
void MembarrierOrWait(int command) noexcept {
  constexpr std::chrono::milliseconds kLongEnough{1};
  if (Membarrier(command) != 0) {
    std::this_thread::sleep_for(kLongEnough);
  }
}

}  // namespace

bool ProcessFenceAvailable() noexcept {
  static const bool available = Membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED) == 0;
  return available;
}

void HeavyProcessFence() noexcept { MembarrierOrWait(MEMBARRIER_CMD_PRIVATE_EXPEDITED); }

bool RegisterForGlobalFences() noexcept {
  static const bool registered = Membarrier(MEMBARRIER_CMD_REGISTER_GLOBAL_EXPEDITED) == 0;
  return registered;
}

bool GlobalFenceAvailable() noexcept {
  static const bool available = Membarrier(MEMBARRIER_CMD_GLOBAL_EXPEDITED) == 0;
  return available;
}

void HeavyGlobalFence() noexcept { MembarrierOrWait(MEMBARRIER_CMD_GLOBAL_EXPEDITED); }

}  // namespace engine
