// Calendar dates of prices.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace feed {

using Date = std::chrono::year_month_day;

// Reads "2000-01-31" or "Jan 31 2000". Text of another form, and days that are in no calendar, give nothing.
std::optional<Date> ParseDate(std::string_view text);

// "2000-01-31".
std::string ToString(Date date);

// The date as one number, 20000131, and back; a number that is no date gives nothing.
std::int32_t ToNumber(Date date);
std::optional<Date> DateFromNumber(std::int32_t number);

}  // namespace feed
