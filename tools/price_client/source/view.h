// What the user sees while the client runs.
#pragma once

#include <chrono>
#include <memory>

#include "cli/output.h"
#include "options.h"
#include "snapshot.h"

namespace price_client {

class View {
 public:
  virtual ~View() = default;

  // Called several times a second with what is known by then.
  virtual void Show(const Snapshot& snapshot) = 0;

  // Called for Ctrl-Z, which comes here only when TakesOverTerminal.
  virtual void Suspend() {}
};

// Whether the options and the output ask for the live view.
bool TakesOverTerminal(const Options& options, const cli::Output& output);

// The live view, lines, or nothing at all. output has to outlive it.
std::unique_ptr<View> MakeView(const Options& options, const cli::Output& output);

}  // namespace price_client
