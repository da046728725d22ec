// Calendar dates of prices.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#pragma GCC visibility push(default)

namespace feed {

// A day of the Gregorian calendar, years 0 to 9999. A default date is none.
struct Date {
  std::int16_t year = 0;
  std::uint8_t month = 0;
  std::uint8_t day = 0;
};

// Reads "2000-01-31" or "Jan 31 2000". Text of another form, and days that are in no calendar, give nothing.
std::optional<Date> ParseDate(std::string_view text);

// "2000-01-31".
std::string ToString(Date date);

// The date as one number, 20000131, and back; a number that is no date gives nothing.
constexpr std::int32_t ToNumber(Date date) { return date.year * 10000 + date.month * 100 + date.day; }
std::optional<Date> DateFromNumber(std::int32_t number);

constexpr bool operator==(Date a, Date b) { return ToNumber(a) == ToNumber(b); }
constexpr bool operator!=(Date a, Date b) { return !(a == b); }
constexpr bool operator<(Date a, Date b) { return ToNumber(a) < ToNumber(b); }

}  // namespace feed

#pragma GCC visibility pop
