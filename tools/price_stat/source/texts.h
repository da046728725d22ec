// Numbers and texts of pages for people.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "processes.h"
#include "zq/statistics/kind.h"

namespace price_stat {

// "3.20 k", "12.5 M": at most six characters, for columns that are narrow.
std::string ShortCount(double count);

// A number in a field's unit: "1,234", "1.25 ms".
std::string NumberText(const Field& field, std::int64_t number);

// A counter's growth in a second; of one that counts time, the share of the time: "12.5 %".
std::string RateText(const Field& field, double rate);

// A context's name, or its handle when it has none.
std::string ContextName(std::string_view name, std::string_view handle);

// "price_client 4242".
std::string ProcessName(const Process& process);

// A process's number; "?" when it is not known.
std::string NumberOf(const Process& process);

// Says on standard error that there is nothing to show, and what to look at when there are no processes at all.
void ComplainOfNothing(const std::string& directory, const std::vector<Process>& processes);

}  // namespace price_stat
