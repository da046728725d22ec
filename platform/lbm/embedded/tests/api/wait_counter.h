// Counts how often this process has waited for events.
#pragma once

#include <cstddef>

namespace engine_test {

// Calls of epoll_wait with a time-out that is not 0, on any thread.
std::size_t Waits();

}  // namespace engine_test
