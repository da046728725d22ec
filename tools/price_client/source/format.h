// Numbers as people read them.
#pragma once

#include <cstdint>
#include <string>

namespace price_client {

// 1234567 as "1,234,567".
std::string FormatCount(std::uint64_t count);

// Nanoseconds with a fitting unit and about three digits: "850 ns", "1.25 us",
// "12.5 ms", "3.00 s".
std::string FormatLatency(std::uint64_t nanoseconds);

}  // namespace price_client
