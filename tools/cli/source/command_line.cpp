#include "cli/command_line.h"

#include <fmt/format.h>

#include <charconv>
#include <cstdlib>
#include <sstream>
#include <system_error>

#include "zq/logging/default_backend.h"

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

}  // namespace

void AddCommonOptions(CLI::App& app, const Manual& manual) {
  app.footer(HelpFooter(manual));
  app.set_version_flag("--version", app.get_name() + ' ' + PRICE_CONNECTOR_VERSION, "Print the version and exit");
  app.add_option_function<std::string>("--log-level", SetMinLogLevel, "Least level of the log lines on standard error")
      ->type_name("debug|info|warning|error")
      ->envname("ZQLOG_LEVEL")
      ->default_str("warning");
  SetMinLogLevel("warning");

  const auto generate = [&app, manual](const std::string& kind) {
    auto text = kind == "man" ? ManPage(app, manual) : kind == "bash" ? BashCompletion(app) : ZshCompletion(app);
    text.pop_back();
    // The library prints the text of this exception and a line end, and looks for nothing that is missing.
    throw CLI::CallForVersion(text, 0);
  };
  app.add_option_function<std::string>("--generate", generate,
                                       "Print the manual page, or a script that completes command lines, and exit")
      ->check(CLI::IsMember({"man", "bash", "zsh"}).description(""))
      ->type_name("man|bash|zsh");
}

CLI::Validator Number(double min, double max) {
  const auto check = [min, max](const std::string& text) {
    double value = 0;
    const bool good = CLI::detail::lexical_cast(text, value) && value >= min && value <= max;
    return good ? std::string() : fmt::format("\"{}\" is not a number from {} to {:.0f}", text, min, max);
  };
  return CLI::Validator(check, "");
}

CLI::Validator WholeNumber(std::int64_t min, std::int64_t max) {
  const auto check = [min, max](const std::string& text) {
    std::int64_t value = 0;
    const auto* const textEnd = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), textEnd, value);
    const bool good = error == std::errc() && end == textEnd && value >= min && value <= max;
    return good ? std::string() : fmt::format("\"{}\" is not a whole number from {} to {}", text, min, max);
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
    // A word that is misspelt is what is wrong, rather than that the right one is missing.
    const auto unknown = app.remaining(true);
    const auto what = unknown.empty() ? error.what() : "unknown: \"" + unknown.front() + '"';
    throw UsageError(what + "\nRun '" + app.get_name() + " --help' for the options.");
  }
}

}  // namespace cli
