#include "options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>

#include "cli/command_line.h"
#include "feed/instance_text.h"

namespace price_server {
namespace {

cli::Manual MakeManual() {
  return {
      .exits = {{cli::ExitCode::kOk, "ended in order"},
                {cli::ExitCode::kUnsatisfied, "the instance is already running"},
                {cli::ExitCode::kUsage, "the command line or the prices file is not usable"},
                {cli::ExitCode::kFailure, "something failed while running"}},
      .notes = {"Ctrl-C ends in order at any moment.",
                "LBM_RUNTIME_DIR names the directory in which servers and clients meet."},
      .examples = {{"price_server --market 1 --submarket 1 --node 1 --prices stocks.csv --loop",
                    "Replay a prices file until Ctrl-C"}},
  };
}

// "data/sp500-2000.csv" gives SP500-2000.
feed::Symbol SymbolFromFileName(const std::string& path) {
  auto name = std::filesystem::path(path).stem().string().substr(0, feed::Symbol::kMaxLength);
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return feed::Symbol::Parse(name).value_or(*feed::Symbol::Parse("DAILY"));
}

void AddReplayOptions(CLI::App& app, Options& options, std::string& symbol) {
  app.add_option("--segments", options.segments, "Segments over which the symbols are spread")
      ->check(cli::WholeNumber(1, feed::kMaxSegments))
      ->type_name("1.." + std::to_string(feed::kMaxSegments))
      ->capture_default_str();
  app.add_option("--prices", options.pricesFile, "Prices file (symbol,date,price or date,open,high,low,close,...)")
      ->required()
      ->type_name("FILE");
  app.add_option("--symbol", symbol, "Symbol for a prices file without a symbol column; default: from the file's name")
      ->type_name("SYMBOL");
  app.add_option("--rate", options.updatesPerSecond, "Updates a second over all segments; 0: as fast as possible")
      ->check(cli::Number(0, 1e9))
      ->type_name("R")
      ->capture_default_str();
  app.add_flag("--loop", options.loop, "Start over at the end of the prices file");
  app.add_option("--count", options.count, "End after this many updates")
      ->check(cli::WholeNumber(0, cli::kMaxCount))
      ->type_name("N");
  cli::AddSecondsOption(app, "--seconds", options.seconds, "End after this many seconds");
  app.add_flag("--wait-for-client", options.waitForClient,
               "Send the first update when a client has subscribed to every segment");
}

void AddServiceOptions(CLI::App& app, Options& options) {
  cli::AddSecondsOption(app, "--news-every", options.newsPeriod, "Seconds from one news to the next; 0: none");
  cli::AddSecondsOption(app, "--rfq-every", options.rfqPeriod,
                        "Seconds from one request for quotes to the next; 0: none");
  cli::AddSecondsOption(app, "--status-every", options.statusPeriod, "Seconds from one status to the next");
  app.add_flag("--console", options.hasConsole,
               "Read commands to clients from standard input, one a line; the line \"help\" tells more");
  cli::AddSecondsOption(app, "--command-timeout", options.commandTimeout,
                        "How long a command waits for a client to hear it, and then for an answer");
}

// What is wrong although each option by itself is right, and what follows from several.
void Complete(Options& options, const std::string& symbol) {
  if (!options.instance.m_marketName.empty() && !feed::IsMarketName(options.instance.m_marketName)) {
    throw cli::UsageError("bad --market-name; expected 1 to 32 visible characters without blanks");
  }
  if (options.statusPeriod.count() == 0) {
    throw cli::UsageError("bad --status-every 0; expected a number above 0");
  }
  const auto parsed =
      symbol.empty() ? std::optional(SymbolFromFileName(options.pricesFile)) : feed::Symbol::Parse(symbol);
  if (!parsed) {
    throw cli::UsageError("bad --symbol \"" + symbol + "\"; expected 1 to 20 visible characters");
  }
  options.symbolOfDailyValues = *parsed;
}

}  // namespace

std::optional<Options> ParseOptions(int argc, const char* const* argv, const cli::Output& output) {
  Options options;
  std::string symbol;

  CLI::App app("Replays recorded prices as one price-server instance.", "price_server");
  const auto id = [&app](const char* name, std::int16_t& value, const char* help) {
    app.add_option(name, value, help)->required()->check(cli::WholeNumber(0, 32767))->type_name("0..32767");
  };
  id("--market", options.instance.m_marketID, "Market number");
  id("--submarket", options.instance.m_submarketID, "Submarket number");
  id("--node", options.instance.m_nodeID, "Node number");
  app.add_option("--market-name", options.instance.m_marketName, "Market name, for display")->type_name("NAME");
  AddReplayOptions(app, options, symbol);
  AddServiceOptions(app, options);
  app.add_option("--context-name", options.contextName, "Name of the messaging context; default: price_server")
      ->type_name("NAME");
  app.add_flag("--quiet", options.quiet, "Print the summary only, and what --console gives");
  cli::AddCommonOptions(app, MakeManual());

  if (!cli::ParseCommandLine(app, argc, argv, output)) {
    return std::nullopt;
  }
  Complete(options, symbol);
  if (options.contextName.empty()) {
    options.contextName = app.get_name();
  }
  return options;
}

}  // namespace price_server
