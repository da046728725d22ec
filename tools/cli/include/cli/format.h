// Numbers and texts as people read them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace cli {

// 1234567 as "1,234,567".
std::string FormatCount(std::uint64_t count);

// Nanoseconds with a fitting unit and about three digits: "850 ns", "1.25 us",
// "12.5 ms", "3.00 s".
std::string FormatLatency(std::uint64_t nanoseconds);

// Seconds as "01:02:05"; hours may have more digits. What is negative counts as 0.
std::string FormatDuration(double seconds);

// UTF-8 with a question mark for each character that is not ASCII, so that bytes are columns.
std::string ToAscii(std::string_view text);

}  // namespace cli
