// What the client prints besides the live view.
#pragma once

#include <string>

#include "feed/command_answer.h"
#include "snapshot.h"

namespace price_client {

// What is known of the server from its status, in a few words; "" before it was ever seen.
std::string ServerText(const InstanceSnapshot& instance);

// One line on an instance, with an end of line.
std::string ProgressLine(const InstanceSnapshot& instance, double elapsedSeconds);

// One line for each thing worth telling that happened to an instance, or to the
// client itself, between two snapshots: appeared, gone, back, gaps, losses,
// news, paused. Empty when there was nothing.
std::string ChangeLines(const InstanceSnapshot& before, const InstanceSnapshot& now, double elapsedSeconds);
std::string ChangeLines(const ClientSnapshot& before, const ClientSnapshot& now, double elapsedSeconds);

// What the client answers to an operator who asks how it is.
std::string ReportText(const Snapshot& snapshot);
feed::CommandAnswer::Figures ReportFigures(const Snapshot& snapshot);

// A table of prices with a row for each instance and the total, and one of what
// else the instances have told.
std::string SummaryTable(const Snapshot& snapshot);

// The same as one JSON document; docs/tools.md describes it.
std::string SummaryJson(const Snapshot& snapshot);

}  // namespace price_client
