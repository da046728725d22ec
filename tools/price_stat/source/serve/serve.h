// The command "serve".
#pragma once

#include <string>
#include <vector>

#include "cli/exit_code.h"
#include "cli/output.h"

namespace price_stat {

struct ServeOptions {
  std::string listen = "127.0.0.1:9911";
  bool beyondThisMachine = false;  // addresses that others can reach are allowed
  std::vector<std::string> hostNames;
};

// Shows the pages of a directory over HTTP until a signal asks it to end. Throws cli::UsageError when it cannot listen.
cli::ExitCode Serve(const std::string& directory, const ServeOptions& options, const cli::Output& output);

}  // namespace price_stat
