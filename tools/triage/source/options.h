// The command line of the triage tool.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

#include "cli/output.h"

namespace triage {

// Switches NAKs on or off.
struct NakKill {
  int contexts = 0;  // a value of LBMContext
  bool enable = false;
};

struct Options {
  std::string environment;
  std::string dataCenter;  // empty: all of the environment
  std::string topicPrefix;
  std::optional<NakKill> nakKill;  // none: a test request
  bool dryRun = false;             // only look who would get the request
  bool confirmed = false;          // no question before a whole environment is addressed
  std::chrono::duration<double> timeout{3};
  std::optional<std::size_t> expected;  // answers
  bool json = false;
};

// Nothing when the user asked for help or the version, which then has been written. Throws cli::UsageError.
std::optional<Options> ParseOptions(int argc, const char* const* argv, const cli::Output& output);

// Whether the user has to confirm the request before it is sent.
bool NeedsConfirmation(const Options& options);

// Where the request goes.
std::string TopicOf(const Options& options);

}  // namespace triage
