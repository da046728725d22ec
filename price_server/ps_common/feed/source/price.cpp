#include "feed/price.h"

#include <algorithm>
#include <charconv>

namespace feed {
namespace {

constexpr std::size_t kMaxWholeDigits = 12;
constexpr std::size_t kMinDecimalsShown = 2;

bool AllDigits(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace

std::optional<Price> Price::Parse(std::string_view text) {
  const auto point = text.find('.');
  const auto whole = text.substr(0, point);
  const auto decimals = point == std::string_view::npos ? std::string_view() : text.substr(point + 1);
  if (whole.empty() || whole.size() > kMaxWholeDigits || decimals.size() > kDecimals || !AllDigits(whole) ||
      !AllDigits(decimals) || (point != std::string_view::npos && decimals.empty())) {
    return std::nullopt;
  }
  std::string digits(whole);
  digits += decimals;
  digits.append(kDecimals - decimals.size(), '0');
  std::int64_t units = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), units);
  return Price(units);
}

std::string Price::ToString() const {
  auto decimals = std::to_string(kUnitsPerOne + m_units % kUnitsPerOne).substr(1);
  while (decimals.size() > kMinDecimalsShown && decimals.back() == '0') {
    decimals.pop_back();
  }
  return std::to_string(m_units / kUnitsPerOne) + '.' + decimals;
}

}  // namespace feed
