// What has changed between two documents of price_stat show --json.
#pragma once

#include <nlohmann/json.hpp>

namespace price_stat {

// {"processes": [{"program", "process", "seconds", "changes": [...]}], "only_before": [...], "only_after": [...]}
// A change is {"kind", "labels", "field", "unit", "before", "after", "growth", "per_second"}; of a histogram these are
// the numbers of values, and "values" has quantiles of those that came in between. Rows that are in one document alone
// are counted from or to 0, with "row": "begun" or "ended"; those that the selection of one leaves out are not
// compared. "per_second" is there for what counts, and for rows that are in both. Throws nlohmann::json::exception when
// one is no such document.
nlohmann::ordered_json Difference(const nlohmann::ordered_json& before, const nlohmann::ordered_json& after);

}  // namespace price_stat
