// price_client: receives prices from price-server instances and shows them.

#include <chrono>
#include <iostream>
#include <optional>

#include "client.h"
#include "feed/command_line.h"
#include "feed/signal_wait.h"
#include "options.h"
#include "rate_meter.h"
#include "report.h"
#include "view.h"

namespace price_client {
namespace {

using Clock = feed::SignalWait::Clock;

constexpr auto kTick = std::chrono::milliseconds(50);

// Rounds of the view without a heartbeat of the dispatch thread after which it counts as ended. Rounds and not time, so
// that a process that was stopped and continued is not taken for a broken one.
constexpr int kMaxSilentTicks = 200;

// Shows what arrives until the user, the options or an end of the dispatch thread stops it; the latter throws.
void Watch(const Options& options, const Client& client, feed::SignalWait& signals, View& view, RateMeter& rates) {
  const auto end = options.seconds
                       ? std::optional(rates.Start() + std::chrono::duration_cast<Clock::duration>(*options.seconds))
                       : std::nullopt;
  auto heartbeat = client.Heartbeat();
  for (int silentTicks = 0; silentTicks < kMaxSilentTicks; ++silentTicks) {
    const auto now = Clock::now();
    const auto snapshot = rates.Measure(client.Read(), now);
    view.Show(snapshot);
    if ((end && now >= *end) || (options.count && snapshot.Total().updates >= *options.count)) return;
    const auto nextTick = now + kTick;
    const int signal = signals.WaitUntil(end ? std::min(*end, nextTick) : nextTick);
    if (feed::AsksToStop(signal)) return;
    if (signal != 0) view.Suspend();
    if (client.Heartbeat() != heartbeat) {
      heartbeat = client.Heartbeat();
      silentTicks = 0;
    }
  }
  throw std::runtime_error("the dispatch thread has ended or hangs; run with --log-level info for its last words");
}

feed::ExitCode Judge(const Options& options, const Snapshot& snapshot) {
  auto code = feed::ExitCode::kOk;
  const auto complain = [&code](const std::string& what) {
    std::cerr << "price_client: " << what << std::endl;
    code = feed::ExitCode::kUnsatisfied;
  };
  for (const auto& instance : snapshot.instances) {
    if (instance.totals.updates == 0) complain("nothing received from " + instance.name);
    if (options.strict && instance.totals.HasGap()) complain("gap in the updates of " + instance.name);
  }
  return code;
}

feed::ExitCode Run(int argc, const char* const* argv) {
  const feed::Output output;
  const auto options = ParseOptions(argc, argv, output);
  if (!options) return feed::ExitCode::kOk;

  auto signals = TakesOverTerminal(*options, output) ? feed::SignalWait{SIGINT, SIGTERM, SIGHUP, SIGTSTP}
                                                     : feed::SignalWait{SIGINT, SIGTERM, SIGHUP};
  feed::DivertLibraryOutput();
  Client client(*options);
  RateMeter rates(Clock::now());
  {
    const auto view = MakeView(*options, output);
    Watch(*options, client, signals, *view, rates);
  }
  client.Stop();
  const auto result = rates.Measure(client.Read(), Clock::now());
  output.Write(options->json ? SummaryJson(result) : SummaryTable(result));
  return Judge(*options, result);
}

}  // namespace
}  // namespace price_client

int main(int argc, char** argv) {
  return feed::RunTool("price_client", [argc, argv] { return price_client::Run(argc, argv); });
}
