#include "system/barrier.h"

#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <thread>

namespace engine {

namespace {

long Membarrier(int command) noexcept { return ::syscall(SYS_membarrier, command, 0, 0); }

// For commands that have worked before. The system may refuse them all the same: to a process that has filtered its
// system calls since, or without memory. No barrier is in sight then, but what the other threads have stored takes
// effect by itself, in far less time than this.
void MembarrierOrWait(int command) noexcept {
  constexpr std::chrono::milliseconds kLongEnough{1};
  if (Membarrier(command) != 0) {
    std::this_thread::sleep_for(kLongEnough);
  }
}

}  // namespace

bool ProcessBarrierWorks() noexcept {
  static const bool works = Membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED) == 0;
  return works;
}

void ProcessBarrier() noexcept { MembarrierOrWait(MEMBARRIER_CMD_PRIVATE_EXPEDITED); }

bool LetGlobalBarrierReachUs() noexcept {
  static const bool reaches = Membarrier(MEMBARRIER_CMD_REGISTER_GLOBAL_EXPEDITED) == 0;
  return reaches;
}

bool GlobalBarrierWorks() noexcept {
  static const bool works = Membarrier(MEMBARRIER_CMD_GLOBAL_EXPEDITED) == 0;
  return works;
}

void GlobalBarrier() noexcept { MembarrierOrWait(MEMBARRIER_CMD_GLOBAL_EXPEDITED); }

}  // namespace engine
