// What the client answers to an operator who asks how it is.
#pragma once

#include <string>

#include "feed/command_answer.h"
#include "snapshot.h"

namespace price_client {

std::string ReportText(const Snapshot& snapshot);
feed::CommandAnswer::Figures ReportFigures(const Snapshot& snapshot);

}  // namespace price_client
