// How the command-line tools end.
#pragma once

#include <stdexcept>

namespace cli {

// Stable: scripts rely on the numbers.
enum class ExitCode : int {
  kOk = 0,
  kUnsatisfied = 1,  // it ran, and the outcome is not the one asked for
  kUsage = 2,        // the command line, or a file that it names, is not usable; nothing was started
  kFailure = 3,      // something failed while running
  kNoAnswer = 4,     // nobody answered a request in time
  kRefused = 5,      // somebody answered a request, but not with success
};

// What the user has to put right before the tool can start. Ends a tool with ExitCode::kUsage.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace cli
