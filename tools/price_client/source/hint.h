// What to look at when nothing comes.
#pragma once

#include <string>

#include "snapshot.h"

namespace price_client {

// Seconds without prices after which a hint is of use.
constexpr double kSecondsBeforeHint = 3;

// One line; empty when prices of the instance have come, or the client is paused.
std::string HintFor(const InstanceSnapshot& instance, const ClientSnapshot& client);

}  // namespace price_client
