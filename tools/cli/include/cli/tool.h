// How a tool runs: its body, and what becomes of what is wrong.
#pragma once

#include <functional>
#include <string_view>

#include "cli/exit_code.h"

namespace cli {

// Says on standard error what is wrong, in as many lines as the text has; control characters, which it may have from a
// file, become blanks.
void Complain(std::string_view toolName, std::string_view what);

// Runs a tool's body and returns what main is to return. What the body throws is written to standard error.
int RunTool(std::string_view toolName, const std::function<ExitCode()>& body) noexcept;

// From now on to the end of the process, what libraries print on std::cout is kept away from standard output, which
// belongs to the tool's results: it goes to standard error when the log shows informational statements, and nowhere
// otherwise. Libraries print until their static objects are gone, so there is no way back.
//
// Threads: call while no other thread writes to std::cout.
void DivertLibraryOutput();

}  // namespace cli
