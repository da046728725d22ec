#include "feed/command_line.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <vector>

#include "zq/logging/default_backend.h"

namespace feed {
namespace {

void SetMinLogLevel(const std::string& name) {
  const auto level = zq::logging::ParseLevel(name);
  if (!level) throw CLI::ValidationError("--log-level", '"' + name + "\" is not the name of a level");
  zq::logging::SetMinLevel(*level);
}

// "1:2:3:name" has no more than four pieces: further colons belong to the name.
std::vector<std::string_view> SplitAtColons(std::string_view text) {
  std::vector<std::string_view> pieces;
  while (pieces.size() < 3) {
    const auto colon = text.find(':');
    pieces.push_back(text.substr(0, colon));
    if (colon == std::string_view::npos) return pieces;
    text.remove_prefix(colon + 1);
  }
  pieces.push_back(text);
  return pieces;
}

std::optional<std::int16_t> ParseNumber(std::string_view text) {
  std::int16_t number = 0;
  const auto* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && stop == end && number >= 0 ? std::optional(number) : std::nullopt;
}

CLI::Option* AddSecondsOption(CLI::App& app, const std::string& name, const std::string& help,
                              const std::function<void(double)>& set) {
  // The bound keeps deadlines within what clocks can represent.
  constexpr double kMaxSeconds = 1e8;
  return app.add_option_function<double>(name, set, help)->check(NumberUpTo(kMaxSeconds))->type_name("S");
}

// A standard descriptor that the caller has closed would be given to the next file opened, which then would be taken for
// standard input or output. Reading from what stands in for it gives the end of the input; writing to it is an error.
void OccupyStandardDescriptors() {
  int file = -1;
  do {
    file = ::open("/dev/null", O_RDONLY);
  } while (file >= 0 && file <= STDERR_FILENO);
  if (file >= 0) ::close(file);
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

void AddSecondsOption(CLI::App& app, std::optional<std::chrono::duration<double>>& seconds, const std::string& help) {
  AddSecondsOption(app, "--seconds", help,
                   [&seconds](double value) { seconds = std::chrono::duration<double>(value); });
}

void AddSecondsOption(CLI::App& app, const std::string& name, std::chrono::duration<double>& seconds,
                      const std::string& help) {
  AddSecondsOption(app, name, help, [&seconds](double value) {
    seconds = std::chrono::duration<double>(value);
  })->default_str(CLI::detail::to_string(seconds.count()));
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

bool IsMarketName(std::string_view text) {
  constexpr std::size_t kMaxLength = 32;
  return !text.empty() && text.size() <= kMaxLength &&
         std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < 0x7f; });
}

ps_ns::ServerInstance ParseServerInstance(const std::string& text) {
  const auto pieces = SplitAtColons(text);
  if (pieces.size() >= 3) {
    const auto market = ParseNumber(pieces[0]);
    const auto submarket = ParseNumber(pieces[1]);
    const auto node = ParseNumber(pieces[2]);
    const auto name = pieces.size() == 4 ? pieces[3] : std::string_view();
    const bool nameIsGood = pieces.size() == 3 || IsMarketName(name);
    if (market && submarket && node && nameIsGood) {
      ps_ns::ServerInstance instance;
      instance.m_marketID = *market;
      instance.m_submarketID = *submarket;
      instance.m_nodeID = *node;
      instance.m_marketName = name;
      return instance;
    }
  }
  throw UsageError("bad server instance \"" + text +
                   "\"; expected market:submarket:node or market:submarket:node:name, numbers from 0 to 32767, such as "
                   "1:1:1:STOCKS");
}

int RunTool(std::string_view toolName, const std::function<ExitCode()>& body) noexcept {
  const auto end = [toolName](ExitCode code, const char* what) {
    std::cerr << toolName << ": " << what << std::endl;
    return static_cast<int>(code);
  };
  try {
    OccupyStandardDescriptors();
    if (std::getenv("CHEF_ENVIRONMENT") == nullptr && std::getenv("DATA_CENTER") == nullptr) {
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

}  // namespace feed
