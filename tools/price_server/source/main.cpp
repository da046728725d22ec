// price_server: replays recorded prices as one price-server instance.

#include <fmt/format.h>

#include <filesystem>
#include <iostream>
#include <optional>

#include "cli/command_line.h"
#include "cli/signal_wait.h"
#include "feed/prices_file.h"
#include "instance_lock.h"
#include "lbm/attributes.h"
#include "lbm/context.h"
#include "lbm/errors.h"
#include "options.h"
#include "product_catalogue.h"
#include "progress.h"
#include "replay.h"
#include "segment_publisher.h"
#include "services.h"
#include "task_loop.h"

namespace price_server {
namespace {

feed::PricesFile ReadPrices(const Options& options) {
  try {
    return feed::ReadPricesFile(options.pricesFile, options.symbolOfDailyValues);
  } catch (const feed::PricesFileError& error) {
    throw cli::UsageError(error.what());
  }
}

// Where servers that could meet each other meet; with a messaging library that has no such place, the machine's.
std::filesystem::path LockDirectory(const lbm::Context& context) {
  try {
    return context.GetStrOpt("domain_directory");
  } catch (const lbm::LbmError&) {
    return std::filesystem::temp_directory_path();
  }
}

cli::ExitCode Run(int argc, const char* const* argv) {
  const cli::Output output;
  const auto options = ParseOptions(argc, argv, output);
  if (!options) {
    return cli::ExitCode::kOk;
  }
  const auto file = ReadPrices(*options);

  cli::SignalWait signals{SIGINT, SIGTERM, SIGHUP};
  cli::DivertLibraryOutput();
  TaskLoop loop;
  lbm::ContextAttributes attributes;
  attributes.SetString("context_name", options->contextName.c_str());
  lbm::Context context(attributes);
  std::optional<InstanceLock> lock;
  try {
    lock.emplace(LockDirectory(context), "price_server-" + options->instance.ToIdentifier());
  } catch (const InstanceRunning& error) {
    std::cerr << "price_server: instance " << options->instance.ToString() << " is " << error.what()
              << "; end it first, or choose another --node" << std::endl;
    return cli::ExitCode::kUnsatisfied;
  }

  const auto session = static_cast<std::uint64_t>(feed::RealTimeNanoseconds());
  Progress progress(file.symbols.size());
  const ProductCatalogue catalogue(file, options->segments, progress);
  SegmentPublisher publisher(context, options->instance, options->segments, session);
  Replay replay(*options, file, catalogue, publisher, progress, signals);
  if (!options->quiet) {
    output.Write(fmt::format("{}: {} prices of {} symbols on {} segments\n", options->instance.ToString(),
                             file.prices.size(), file.symbols.size(), options->segments));
  }
  Services services({*options, file, catalogue, progress, context, loop, output}, session,
                    [&replay] { replay.RequestStop(); });
  replay.Run();
  services.Close();
  output.Write(replay.Summary());
  return cli::ExitCode::kOk;
}

}  // namespace
}  // namespace price_server

int main(int argc, char** argv) {
  return cli::RunTool("price_server", [argc, argv] { return price_server::Run(argc, argv); });
}
