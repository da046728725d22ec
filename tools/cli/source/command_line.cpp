#include "cli/command_line.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <sstream>

#include "zq/logging/default_backend.h"
#include "zq/posix/descriptor.h"
#include "zq/posix/environment.h"

namespace cli {
namespace {

void SetMinLogLevel(const std::string& name) {
  const auto level = zq::logging::ParseLevel(name);
  if (!level) {
    // The parser gives the environment's value as if the option had been given with it.
    const char* const variable = std::getenv("ZQLOG_LEVEL");
    const bool ofEnvironment = variable != nullptr && name == variable;
    throw CLI::ValidationError(ofEnvironment ? "environment variable ZQLOG_LEVEL" : "--log-level",
                               '"' + name + "\" is not the name of a level");
  }
  zq::logging::SetMinLevel(*level);
}

// A standard descriptor that the caller has closed would be given to the next file opened, which then would be taken
// for standard input or output. Reading from what stands in for it gives the end of the input; writing to it is an
// error.
void OccupyStandardDescriptors() {
  for (;;) {
    zq::posix::Descriptor file(::open("/dev/null", O_RDONLY));
    if (!file || file.Get() > STDERR_FILENO) {
      return;
    }
    file.Release();
  }
}

}  // namespace

void AddCommonOptions(CLI::App& app) {
  app.set_version_flag("--version", app.get_name() + ' ' + PRICE_CONNECTOR_VERSION, "Print the version and exit");
  app.add_option_function<std::string>("--log-level", SetMinLogLevel,
                                       "Least level of the log lines on standard error: debug, info, warning, error")
      ->type_name("LEVEL")
      ->envname("ZQLOG_LEVEL")
      ->default_str("warning");
  SetMinLogLevel("warning");
}

CLI::Validator NumberUpTo(double max) {
  const auto check = [max](const std::string& text) {
    double value = 0;
    const bool good = CLI::detail::lexical_cast(text, value) && value >= 0 && value <= max;
    return good ? std::string() : '"' + text + "\" is not a number from 0 to " + CLI::detail::to_string(max);
  };
  return CLI::Validator(check, "");
}

bool ParseCommandLine(CLI::App& app, int argc, const char* const* argv, const Output& output) {
  try {
    app.parse(argc, argv);
    return true;
  } catch (const CLI::Success& helpOrVersion) {
    std::ostringstream text;
    app.exit(helpOrVersion, text, text);
    output.Write(text.str());
    return false;
  } catch (const CLI::ParseError& error) {
    throw UsageError(std::string(error.what()) + "\nRun '" + app.get_name() + " --help' for the options.");
  }
}

int RunTool(std::string_view toolName, const std::function<ExitCode()>& body) noexcept {
  const auto end = [toolName](ExitCode code, const char* what) {
    std::cerr << toolName << ": " << what << std::endl;
    return static_cast<int>(code);
  };
  try {
    OccupyStandardDescriptors();
    if (zq::posix::Environment("CHEF_ENVIRONMENT").empty() && zq::posix::Environment("DATA_CENTER").empty()) {
      // Nobody expects triage outside a deployment, so the triage handler need not complain that it is not there.
      ::setenv("DISABLE_LBM_TRIAGE_HANDLER", "outside a deployment", 0);
    }
    return static_cast<int>(body());
  } catch (const UsageError& error) {
    return end(ExitCode::kUsage, error.what());
  } catch (const std::exception& error) {
    return end(ExitCode::kFailure, error.what());
  }
}

void DivertLibraryOutput() {
  std::cout.rdbuf(zq::logging::IsEnabled(zq::logging::ZQLOG_INFO) ? std::cerr.rdbuf() : nullptr);
}

}  // namespace cli
