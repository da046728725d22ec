// What it costs to be woken on this machine.
#pragma once

#include <chrono>

namespace engine {

// How much later than its event a thread runs that slept for it, on a processor with nothing else to do: leaving the
// idle state, which may take tens of microseconds on a virtual machine, and the kernel's work. Measured by the first
// call in a process, which takes some 150 microseconds and at most a millisecond or so more on a machine that is busy.
// A guess where the system gives no timer. Threads: any.
std::chrono::nanoseconds WakeUpCost() noexcept;

}  // namespace engine
