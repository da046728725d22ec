// What the client prints while it runs without the live view.
#pragma once

#include <string>

#include "snapshot.h"

namespace price_client {

// One line on an instance, with an end of line.
std::string ProgressLine(const InstanceSnapshot& instance, double elapsedSeconds);

// One line for each thing worth telling that happened to an instance, or to the
// client itself, between two snapshots: appeared, gone, back, gaps, losses,
// news, paused. Empty when there was nothing.
std::string ChangeLines(const InstanceSnapshot& before, const InstanceSnapshot& now, double elapsedSeconds);
std::string ChangeLines(const ClientSnapshot& before, const ClientSnapshot& now, double elapsedSeconds);

// What to look at, for each instance of which nothing has come.
std::string HintLines(const Snapshot& snapshot);

}  // namespace price_client
