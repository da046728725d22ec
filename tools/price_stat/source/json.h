// Processes as JSON.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "processes.h"

namespace price_stat {

// What is known of the process without its rows.
nlohmann::ordered_json HeadJson(const Process& process);

// With all rows of its page:
//   "kinds": {<kind>: {"help", "fields": {<field>: {"type", "unit", "help"}}}}
//   "rows": [{"kind", "id", "labels": {<label>: <text>}, "values": {<field>: <value>}}]
// A value is a number; of a recent maximum {"last_10s", "all"}; of a histogram {"last_10s", "last_60s", "all"}, each
// with count, sum, max and quantiles, the last one also with its buckets: [[<lower bound>, <count>], ...].
nlohmann::ordered_json FullJson(const Process& process);

// One document for all processes, with the end of a line. Texts that are not UTF-8 get U+FFFD in place of wrong bytes.
std::string ToText(const nlohmann::ordered_json& document);

}  // namespace price_stat
