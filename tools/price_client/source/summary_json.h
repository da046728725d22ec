// What the client prints at its end, for programs.
#pragma once

#include <string>

#include "snapshot.h"

namespace price_client {

// One JSON document; docs/tools.md describes it.
std::string SummaryJson(const Snapshot& snapshot);

}  // namespace price_client
