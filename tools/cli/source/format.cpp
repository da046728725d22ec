#include "cli/format.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

namespace cli {

std::string FormatCount(std::uint64_t count) {
  auto text = std::to_string(count);
  for (auto end = text.size(); end > 3; end -= 3) {
    text.insert(end - 3, 1, ',');
  }
  return text;
}

std::string FormatLatency(std::uint64_t nanoseconds) {
  if (nanoseconds < 1000) {
    return fmt::format("{} ns", nanoseconds);
  }
  constexpr std::array kUnits = {"us", "ms", "s"};
  auto value = static_cast<double>(nanoseconds) / 1e3;
  std::size_t unit = 0;
  for (; value >= 999.5 && unit + 1 < kUnits.size(); ++unit) {
    value /= 1e3;
  }
  return fmt::format("{:.{}f} {}", value, value < 9.995 ? 2 : value < 99.95 ? 1 : 0, kUnits[unit]);
}

std::string FormatDuration(double seconds) {
  const auto whole = static_cast<std::uint64_t>(std::clamp(seconds, 0.0, 1e15));
  return fmt::format("{:02}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60);
}

std::string ToAscii(std::string_view text) {
  std::string ascii;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool continues = (byte & 0xc0U) == 0x80;
    if (!continues) {
      ascii += byte < 0x80 ? c : '?';
    }
  }
  return ascii;
}

}  // namespace cli
