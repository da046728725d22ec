// What the client prints besides the live view.
#pragma once

#include <string>
#include <vector>

#include "snapshot.h"

namespace price_client {

// One line on an instance, with an end of line.
std::string ProgressLine(const InstanceSnapshot& instance, double elapsedSeconds);

// One line for each thing worth telling that happened to an instance between
// two snapshots: appeared, gone, back, gaps, losses. Empty when there was
// nothing.
std::string ChangeLines(const InstanceSnapshot& before, const InstanceSnapshot& now, double elapsedSeconds);

// A table with a row for each instance and the total.
std::string SummaryTable(const Snapshot& snapshot);

// The same as one JSON document; docs/tools.md describes it.
std::string SummaryJson(const Snapshot& snapshot);

}  // namespace price_client
