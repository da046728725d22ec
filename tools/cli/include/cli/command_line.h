// What the command lines of the tools have in common.
#pragma once

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <type_traits>

#include "cli/exit_code.h"
#include "cli/manual.h"
#include "cli/output.h"

namespace cli {

// Adds --version, --log-level and --generate, which prints what is made of all options that the app has when the
// command line is parsed, and ends --help as the manual says. The log goes to standard error, from warnings on unless
// the user asks for more.
void AddCommonOptions(CLI::App& app, const Manual& manual);

// Take numbers from min to max; unlike the library's range check, not "nan", and what is wrong is said in plain words.
CLI::Validator Number(double min, double max);
constexpr std::int64_t kMaxCount = 1'000'000'000'000'000'000;
CLI::Validator WholeNumber(std::int64_t min, std::int64_t max);

// Adds an option that takes a number of seconds such as 2.5, at most so many that deadlines are within what clocks can
// represent. What seconds holds already is shown as the default; an optional one has none.
template <class Seconds>
void AddSecondsOption(CLI::App& app, const std::string& name, Seconds& seconds, const std::string& help,
                      double min = 0) {
  constexpr double kMax = 1e8;
  const auto set = [&seconds](double value) { seconds = std::chrono::duration<double>(value); };
  auto* const option = app.add_option_function<double>(name, set, help)->check(Number(min, kMax))->type_name("S");
  if constexpr (!std::is_same_v<Seconds, std::optional<std::chrono::duration<double>>>) {
    option->default_str(CLI::detail::to_string(seconds.count()));
  }
}

// Returns false when the user asked for help or the version, which then has been written. Throws UsageError.
bool ParseCommandLine(CLI::App& app, int argc, const char* const* argv, const Output& output);

}  // namespace cli
