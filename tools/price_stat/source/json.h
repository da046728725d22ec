// Processes as JSON.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "looks.h"
#include "processes.h"
#include "selection.h"

namespace price_stat {

// What is known of the process without its rows.
nlohmann::ordered_json HeadJson(const Process& process);

// With the rows of its page that are selected:
//   "kinds": {<kind>: {"help", "fields": {<field>: {"type", "unit", "help"}}}}
//   "rows": [{"kind", "id", "labels": {<label>: <text>}, "values": {<field>: <value>}}]
// A value is a number; of a recent maximum {"last_10s", "all"}; of a histogram {"last_10s", "last_60s", "all"}, each
// with count, sum, max and quantiles, the last one also with its buckets: [[<lower bound>, <count>], ...]. With the
// progress since an earlier look, rows also have "per_second": {<counter>: <growth, or null when it is not known>}.
nlohmann::ordered_json FullJson(const Process& process, const Selection& selection = {},
                                const Progress* progress = nullptr);

// {"kinds": [<kind>, ...], "contexts": [<name or handle>, ...]}, as a document of FullJson has it as its "selection".
nlohmann::ordered_json SelectionJson(const Selection& selection);

// That of a document; one without a selection has all rows. Throws nlohmann::ordered_json::exception.
Selection SelectionOf(const nlohmann::ordered_json& document);

// One document for all processes, with the end of a line. Texts that are not UTF-8 get U+FFFD in place of wrong bytes.
std::string ToText(const nlohmann::ordered_json& document);

}  // namespace price_stat
