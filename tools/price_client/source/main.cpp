// price_client: receives from price-server instances and shows what arrives.

#include "cli/signal_wait.h"
#include "cli/tool.h"
#include "client.h"
#include "hint.h"
#include "options.h"
#include "rate_meter.h"
#include "server_text.h"
#include "summary_json.h"
#include "summary_table.h"
#include "view.h"
#include "watch.h"

namespace price_client {
namespace {

constexpr const char* kName = "price_client";

cli::ExitCode Judge(const Options& options, const Snapshot& snapshot) {
  auto code = cli::ExitCode::kOk;
  const auto complain = [&code](const std::string& what, bool isFailure = true) {
    cli::Complain(kName, what);
    code = isFailure ? cli::ExitCode::kUnsatisfied : code;
  };
  for (const auto& instance : snapshot.instances) {
    if (instance.totals.updates == 0) {
      const auto hint = HintFor(instance, snapshot.client);
      complain("nothing received from " + instance.name + (hint.empty() ? hint : ": " + hint));
    }
    if (const auto what = SegmentsText(instance); !what.empty()) {
      complain(instance.name + ' ' + what + "; --segments auto does", options.strict);
    }
    if (options.strict && instance.totals.HasGap()) {
      complain("gap in the updates of " + instance.name);
    }
  }
  return code;
}

cli::ExitCode Run(int argc, const char* const* argv) {
  cli::Output output;
  const auto options = ParseOptions(argc, argv, output);
  if (!options) {
    return cli::ExitCode::kOk;
  }

  auto signals = TakesOverTerminal(*options, output) ? cli::SignalWait{SIGINT, SIGTERM, SIGHUP, SIGTSTP}
                                                     : cli::SignalWait{SIGINT, SIGTERM, SIGHUP};
  output.GiveUpOn(signals.GetDescriptor());
  cli::DivertLibraryOutput();
  Client client(*options, [&signals] { signals.Wake(); });
  RateMeter rates(RateMeter::Clock::now());
  bool endedByCommand = false;
  {
    const auto view = MakeView(*options, output);
    endedByCommand = Watch(*options, client, signals, *view, rates).Run();
  }
  if (endedByCommand) {
    cli::Complain(kName, "ended by a command");
  }
  client.Stop();
  const auto end = RateMeter::Clock::now();
  const auto result = rates.Measure(client.Read(end), end);
  output.Write(options->json ? SummaryJson(result) : SummaryTable(result));
  return Judge(*options, result);
}

}  // namespace
}  // namespace price_client

int main(int argc, char** argv) {
  return cli::RunTool(price_client::kName, [argc, argv] { return price_client::Run(argc, argv); });
}
