#include "options.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "feed/command_line.h"

namespace price_client {
namespace {

constexpr const char* kFooter =
    "Exit codes: 0 ended in order, 1 an instance delivered nothing or, with --strict, a gap was seen, 2 the command\n"
    "line or the configuration file is not usable, 3 something failed while running.\n"
    "Ctrl-C ends in order at any moment. LBM_RUNTIME_DIR names the directory in which servers and clients meet.";

}  // namespace

std::optional<Options> ParseOptions(int argc, const char* const* argv, const feed::Output& output) {
  Options options;
  std::vector<std::string> instances;

  CLI::App app("Receives prices from price-server instances.", "price_client");
  app.footer(kFooter);
  app.add_option("--config", options.configFile, "Configuration file (XML)")->required()->type_name("FILE");
  app.add_option("--instance", instances, "Server instance to receive from; may be repeated")
      ->required()
      ->type_name("MARKET:SUBMARKET:NODE[:NAME]");
  app.add_option("--segments", options.segments, "Segments of every instance")
      ->check(CLI::Range(1U, feed::kMaxSegments).description(""))
      ->type_name("1.." + std::to_string(feed::kMaxSegments))
      ->capture_default_str();
  feed::AddSecondsOption(app, options.seconds, "End after this many seconds");
  app.add_option("--count", options.count, "End after at least this many updates")
      ->check(feed::NumberUpTo(1e18))
      ->type_name("N");
  app.add_flag("--json", options.json, "Print nothing but the summary, as one JSON document");
  app.add_flag("--quiet", options.quiet, "Print nothing but the summary");
  app.add_flag("--plain", options.plain, "Print lines on a terminal, too, instead of the live view");
  app.add_flag("--strict", options.strict, "A gap makes the exit code 1");
  app.add_option("--context-name", options.contextName, "Name of the messaging context; default: price_client")
      ->type_name("NAME");
  app.add_option("--cpu", options.cpu, "CPU that the dispatch thread is pinned to")
      ->check(CLI::NonNegativeNumber.description(""))
      ->type_name("N");
  app.add_flag("--onload", options.onload, "Let the dispatch thread spin when the kernel bypass is present");
  feed::AddCommonOptions(app);

  if (!feed::ParseCommandLine(app, argc, argv, output)) return std::nullopt;

  for (const auto& text : instances) {
    const auto instance = feed::ParseServerInstance(text);
    if (std::find(options.instances.begin(), options.instances.end(), instance) != options.instances.end()) {
      throw feed::UsageError("server instance \"" + text + "\" is given twice");
    }
    options.instances.push_back(instance);
  }
  if (options.contextName.empty()) options.contextName = app.get_name();
  return options;
}

}  // namespace price_client
