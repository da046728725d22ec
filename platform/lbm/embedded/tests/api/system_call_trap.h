// Catches a thread in the act of making system calls.
#pragma once

#include <atomic>

namespace engine_test {

// What a trapped thread has asked the system for; to be placed in memory that outlives its process.
struct SystemCalls {
  std::atomic<int> looks{0};   // for events on descriptors, none of which it was shown
  std::atomic<int> other{-1};  // the number of the call that ended the process
};

// From here on this thread can make no system call but those that SystemCalls counts and the one that ends the process;
// any other ends it. False when the system does not allow traps, or this is no machine for which they are written.
bool TrapSystemCalls(SystemCalls& calls);

}  // namespace engine_test
