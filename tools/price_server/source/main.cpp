// price_server: replays recorded prices as one price-server instance.

#include <fmt/format.h>

#include <exception>
#include <filesystem>
#include <optional>
#include <stop_token>
#include <thread>

#include "cli/signals.h"
#include "cli/tool.h"
#include "event_loop.h"
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
  std::string directory;
  try {
    directory = context.GetStrOpt("domain_directory");
  } catch (const lbm::LbmError&) {
    // The provider has no such option.
  }
  return directory.empty() ? std::filesystem::temp_directory_path() : std::filesystem::path(directory);
}

lbm::ContextAttributes AttributesOf(const Options& options) {
  lbm::ContextAttributes attributes;
  attributes.SetString("context_name", options.contextName.c_str());
  attributes.SetString("operational_mode", "sequential");
  return attributes;
}

// Sends the prices on a thread of their own, so that nothing holds them up, and runs the loop on this one, until one of
// the two ends.
void Serve(Replay& replay, EventLoop& loop) {
  std::exception_ptr failure;
  {
    const std::jthread prices([&](const std::stop_token& stop) {
      try {
        replay.Run(stop);
      } catch (...) {
        failure = std::current_exception();
      }
      loop.Stop();
    });
    loop.Run();
  }
  if (failure) {
    std::rethrow_exception(failure);
  }
}

cli::ExitCode Run(int argc, const char* const* argv) {
  cli::Output output;
  const auto options = ParseOptions(argc, argv, output);
  if (!options) {
    return cli::ExitCode::kOk;
  }
  const auto file = ReadPrices(*options);

  cli::Signals signals{SIGINT, SIGTERM, SIGHUP};
  output.GiveUpOn(signals.GetDescriptor());
  cli::DivertLibraryOutput();
  lbm::Context context(AttributesOf(*options));
  std::optional<InstanceLock> lock;
  try {
    lock.emplace(LockDirectory(context), "price_server-" + options->instance.ToIdentifier());
  } catch (const InstanceRunning& error) {
    cli::Complain("price_server", "instance " + options->instance.ToString() + " is " + error.what() +
                                      "; end it first, or choose another --node");
    return cli::ExitCode::kUnsatisfied;
  }

  EventLoop loop(context);
  loop.WatchForInput(signals.GetDescriptor(), [&] {
    if (cli::AsksToStop(signals.Take())) {
      loop.Stop();
    }
    return true;
  });
  const auto session = static_cast<std::uint64_t>(feed::RealTimeNanoseconds());
  Progress progress(file.symbols.size());
  const ProductCatalogue catalogue(file, options->segments, progress);
  SegmentPublisher publisher(context, options->instance, options->segments, session);
  Replay replay(*options, file, catalogue, publisher, progress);
  if (!options->quiet) {
    output.Write(fmt::format("{}: {} prices of {} symbols on {} segments\n", options->instance.ToString(),
                             file.prices.size(), file.symbols.size(), options->segments));
  }
  Services services({*options, file, catalogue, progress, context, loop, output}, session);
  Serve(replay, loop);
  services.Close();
  output.Write(replay.Summary());
  return cli::ExitCode::kOk;
}

}  // namespace
}  // namespace price_server

int main(int argc, char** argv) {
  return cli::RunTool("price_server", [argc, argv] { return price_server::Run(argc, argv); });
}
