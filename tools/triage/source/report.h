// What the triage tool prints.
#pragma once

#include <chrono>
#include <string>

#include "cli/exit_code.h"
#include "enquiry.h"
#include "options.h"

namespace triage {

struct Report {
  const Options& options;
  const Question& question;
  const Outcome& outcome;
  std::chrono::duration<double> elapsed;
};

// A row for each process, and a line that counts the answers.
std::string Table(const Report& report);

// The same as one JSON document; docs/tools.md describes it.
std::string Json(const Report& report);

struct Verdict {
  cli::ExitCode code = cli::ExitCode::kOk;
  std::string complaint;  // what is wrong and what to look at; empty when nothing is
};
Verdict Judge(const Report& report);

}  // namespace triage
