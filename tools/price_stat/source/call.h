// What the user asks for: one of the tool's commands.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "cli/exit_code.h"
#include "cli/output.h"

namespace price_stat {

struct Call {
  std::string directory;  // of the pages
  bool json = false;
  std::function<cli::ExitCode(const cli::Output&)> run;
};

// Each adds a command with its options to the app; when the command line is parsed and has the command, it sets
// call.run. The call has to outlive the app.
void AddList(CLI::App& app, Call& call);
void AddShow(CLI::App& app, Call& call);
void AddWatch(CLI::App& app, Call& call);
void AddTopics(CLI::App& app, Call& call);
void AddOptions(CLI::App& app, Call& call);
void AddThreads(CLI::App& app, Call& call);
void AddDiff(CLI::App& app, Call& call);
void AddServe(CLI::App& app, Call& call);

void AddJsonOption(CLI::App& command, Call& call);

// Adds an argument with any number of programs or process numbers, and returns what will hold them.
std::shared_ptr<std::vector<std::string>> AddNames(CLI::App& command);

// Returns false when the user asked for help or the version, which then has been written. Throws cli::UsageError.
bool ParseCall(int argc, const char* const* argv, const cli::Output& output, Call& call);

}  // namespace price_stat
