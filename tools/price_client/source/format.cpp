#include "format.h"

#include <fmt/format.h>

#include <array>

namespace price_client {

std::string FormatCount(std::uint64_t count) {
  auto text = std::to_string(count);
  for (auto end = text.size(); end > 3; end -= 3) text.insert(end - 3, 1, ',');
  return text;
}

std::string FormatLatency(std::uint64_t nanoseconds) {
  if (nanoseconds < 1000) return fmt::format("{} ns", nanoseconds);
  constexpr std::array kUnits = {"us", "ms", "s"};
  auto value = static_cast<double>(nanoseconds) / 1e3;
  std::size_t unit = 0;
  for (; value >= 999.5 && unit + 1 < kUnits.size(); ++unit) value /= 1e3;
  return fmt::format("{:.{}f} {}", value, value < 9.995 ? 2 : value < 99.95 ? 1 : 0, kUnits[unit]);
}

}  // namespace price_client
