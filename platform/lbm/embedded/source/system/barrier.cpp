#include "system/barrier.h"

#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace engine {

namespace {

long membarrier(int command) noexcept { return ::syscall(SYS_membarrier, command, 0, 0); }

}  // namespace

bool processBarrierWorks() noexcept {
  static const bool works = membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED) == 0;
  return works;
}

void processBarrier() noexcept { membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED); }

bool letGlobalBarrierReachUs() noexcept {
  static const bool reaches = membarrier(MEMBARRIER_CMD_REGISTER_GLOBAL_EXPEDITED) == 0;
  return reaches;
}

bool globalBarrierWorks() noexcept {
  static const bool works = membarrier(MEMBARRIER_CMD_GLOBAL_EXPEDITED) == 0;
  return works;
}

void globalBarrier() noexcept { membarrier(MEMBARRIER_CMD_GLOBAL_EXPEDITED); }

}  // namespace engine
