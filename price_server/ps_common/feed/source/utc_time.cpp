#include "feed/utc_time.h"

#include <array>
#include <cstdio>

#include "feed/date.h"

namespace feed {
namespace {

constexpr std::string_view kShape = "2000-01-31T09:30:00.250Z";
constexpr std::size_t kDateLength = 10;

}  // namespace

UtcTime UtcNow() { return std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now()); }

std::string ToString(UtcTime time) {
  const auto day = std::chrono::floor<std::chrono::days>(time);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss clock(time - day);
  std::array<char, 48> text{};
  std::snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", static_cast<int>(date.year()),
                static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
                static_cast<int>(clock.seconds().count()), static_cast<int>(clock.subseconds().count()));
  return text.data();
}

std::optional<UtcTime> ParseUtcTime(std::string_view text) {
  if (text.size() != kShape.size()) {
    return std::nullopt;
  }
  const auto date = ParseDate(text.substr(0, kDateLength));
  if (!date) {
    return std::nullopt;
  }
  const auto number = [text](std::size_t at, std::size_t digits) {
    int value = 0;
    for (const char c : text.substr(at, digits)) {
      value = value * 10 + (c - '0');
    }
    return value;
  };
  using namespace std::chrono;
  const year_month_day day{year(date->year), month(date->month), std::chrono::day(date->day)};
  const UtcTime time = sys_days(day) + hours(number(11, 2)) + minutes(number(14, 2)) + seconds(number(17, 2)) +
                       milliseconds(number(20, 3));
  // Whatever is no digit, or too great for its place, comes out as another text.
  return ToString(time) == text ? std::optional(time) : std::nullopt;
}

}  // namespace feed
