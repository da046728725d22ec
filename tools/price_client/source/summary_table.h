// What the client prints at its end, for people.
#pragma once

#include <string>

#include "snapshot.h"

namespace price_client {

// Tables of prices, of their latencies and of what else the instances have told, with a row for each instance; narrow
// enough for a terminal of 80 columns.
std::string SummaryTable(const Snapshot& snapshot);

}  // namespace price_client
