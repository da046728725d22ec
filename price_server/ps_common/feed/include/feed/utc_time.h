// Moments as messages write them.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#pragma GCC visibility push(default)

namespace feed {

using UtcTime = std::chrono::time_point<std::chrono::system_clock, std::chrono::milliseconds>;

UtcTime UtcNow();

// "2000-01-31T09:30:00.250Z".
std::string ToString(UtcTime time);

// Reads what ToString writes and nothing else.
std::optional<UtcTime> ParseUtcTime(std::string_view text);

}  // namespace feed

#pragma GCC visibility pop
