#include "feed/date.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstdio>

namespace feed {
namespace {

constexpr std::array<std::string_view, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
constexpr int kMaxYear = 9999;

// Digits only, minLength to maxLength of them; -1 when the text is anything else.
int Digits(std::string_view text, std::size_t minLength, std::size_t maxLength) {
  if (text.size() < minLength || text.size() > maxLength) {
    return -1;
  }
  unsigned value = 0;
  const auto* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  return error == std::errc() && stop == end ? static_cast<int>(value) : -1;
}

std::optional<Date> MakeDate(int year, int month, int day) {
  if (year < 0 || year > kMaxYear || month < 0 || day < 0) {
    return std::nullopt;
  }
  const std::chrono::year_month_day date{std::chrono::year(year), std::chrono::month(static_cast<unsigned>(month)),
                                         std::chrono::day(static_cast<unsigned>(day))};
  if (!date.ok()) {
    return std::nullopt;
  }
  return Date{static_cast<std::int16_t>(year), static_cast<std::uint8_t>(month), static_cast<std::uint8_t>(day)};
}

}  // namespace

std::optional<Date> ParseDate(std::string_view text) {
  if (text.size() == 10 && text[4] == '-' && text[7] == '-') {
    return MakeDate(Digits(text.substr(0, 4), 4, 4), Digits(text.substr(5, 2), 2, 2), Digits(text.substr(8), 2, 2));
  }
  const auto month = std::find(kMonths.begin(), kMonths.end(), text.substr(0, 3));
  const auto lastBlank = text.rfind(' ');
  if (month == kMonths.end() || text.size() < 10 || text[3] != ' ' || lastBlank < 5) {
    return std::nullopt;
  }
  return MakeDate(Digits(text.substr(lastBlank + 1), 4, 4), static_cast<int>(month - kMonths.begin()) + 1,
                  Digits(text.substr(4, lastBlank - 4), 1, 2));
}

std::string ToString(Date date) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%04d-%02d-%02d", int{date.year}, int{date.month}, int{date.day});
  return text.data();
}

std::optional<Date> DateFromNumber(std::int32_t number) {
  return MakeDate(number / 10000, number / 100 % 100, number % 100);
}

}  // namespace feed
