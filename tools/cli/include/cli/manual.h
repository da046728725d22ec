// What a tool's users read of its command line: the end of --help, the man page and the completion of shells, all made
// from the definitions by which the command line is parsed.
#pragma once

#include <string>
#include <vector>

#include "cli/exit_code.h"

namespace CLI {
class App;
}

namespace cli {

// What the definitions of the options do not say.
struct Manual {
  struct Exit {
    ExitCode code;
    const char* meaning;
  };
  struct Example {
    const char* command;
    const char* what;
  };

  std::vector<Exit> exits;
  std::vector<const char*> notes;  // whole sentences
  std::vector<Example> examples;
};

// What --help ends with.
std::string HelpFooter(const Manual& manual);

// In mdoc(7), section 1. The date is that of the environment variable SOURCE_DATE_EPOCH, otherwise today's.
std::string ManPage(const CLI::App& app, const Manual& manual);

// Scripts for these shells. The type names of options say how values are completed: FILE and DIR by the names of files,
// words with "|" between them by these words, and others not at all.
std::string BashCompletion(const CLI::App& app);
std::string ZshCompletion(const CLI::App& app);

}  // namespace cli
