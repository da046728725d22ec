// price_server: replays recorded prices as one price-server instance.

#include <fmt/format.h>

#include <chrono>
#include <filesystem>
#include <iostream>
#include <optional>

#include "feed/command_line.h"
#include "feed/prices_file.h"
#include "feed/signal_wait.h"
#include "instance_lock.h"
#include "lbm/attributes.h"
#include "lbm/context.h"
#include "lbm/errors.h"
#include "options.h"
#include "replay_schedule.h"
#include "segment_publisher.h"

namespace price_server {
namespace {

using Clock = feed::SignalWait::Clock;

// How long sending may go on without a look whether the user wants it to stop, and how long to wait for room to send or
// for a client.
constexpr auto kPause = std::chrono::milliseconds(1);

feed::PricesFile ReadPrices(const Options& options) {
  try {
    return feed::ReadPricesFile(options.pricesFile, options.symbolOfDailyValues);
  } catch (const feed::PricesFileError& error) {
    throw feed::UsageError(error.what());
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

// Replays until the file, the options or the user ends it.
class Replay {
 public:
  Replay(const Options& options, const feed::PricesFile& file, SegmentPublisher& publisher, feed::SignalWait& signals)
      : m_options(options), m_file(file), m_publisher(publisher), m_signals(signals) {}

  void Run() {
    if (m_options.waitForClient && !WaitForClient()) return;
    m_start = Clock::now();
    if (m_options.seconds) m_end = m_start + std::chrono::duration_cast<Clock::duration>(*m_options.seconds);
    ReplaySchedule schedule(m_options.updatesPerSecond, m_start);
    auto lastLook = m_start;
    for (std::size_t next = 0; !m_options.count || m_sent < *m_options.count;) {
      const auto now = Clock::now();
      if (now >= m_end) return;
      if (schedule.NextDue() > now || now - lastLook > kPause) {
        if (StopsBefore(schedule.NextDue())) return;
        lastLook = now;
        continue;
      }
      if (!Send(m_file.prices[next])) {
        if (StopsBefore(now + kPause)) return;
        continue;
      }
      ++m_sent;
      schedule.Advance(now);
      if (++next == m_file.prices.size()) {
        if (!m_options.loop) return;
        next = 0;
      }
    }
  }

  std::string Summary() const {
    const auto seconds =
        m_start == Clock::time_point() ? 0 : std::chrono::duration<double>(Clock::now() - m_start).count();
    return fmt::format("{}: sent {} updates in {:.1f} s ({:.0f}/s)\n", m_options.instance.ToString(), m_sent, seconds,
                       seconds > 0 ? static_cast<double>(m_sent) / seconds : 0);
  }

 private:
  // Symbols go to the segments in turn.
  bool Send(const feed::RecordedPrice& price) {
    return m_publisher.Send(static_cast<unsigned short>(price.symbol % m_options.segments),
                            m_file.symbols[price.symbol], price.date, price.price);
  }

  bool WaitForClient() {
    while (!m_publisher.EverySegmentHasSubscriber()) {
      if (StopsBefore(Clock::now() + kPause)) return false;
    }
    return true;
  }

  bool StopsBefore(Clock::time_point deadline) { return m_signals.WaitUntil(std::min(deadline, m_end)) != 0; }

  const Options& m_options;
  const feed::PricesFile& m_file;
  SegmentPublisher& m_publisher;
  feed::SignalWait& m_signals;
  Clock::time_point m_start;
  Clock::time_point m_end = Clock::time_point::max();
  std::uint64_t m_sent = 0;
};

feed::ExitCode Run(int argc, const char* const* argv) {
  const feed::Output output;
  const auto options = ParseOptions(argc, argv, output);
  if (!options) return feed::ExitCode::kOk;
  const auto file = ReadPrices(*options);

  feed::SignalWait signals{SIGINT, SIGTERM, SIGHUP};
  feed::DivertLibraryOutput();
  lbm::ContextAttributes attributes;
  attributes.SetString("context_name", options->contextName.c_str());
  lbm::Context context(attributes);
  std::optional<InstanceLock> lock;
  try {
    lock.emplace(LockDirectory(context), "price_server-" + options->instance.ToIdentifier());
  } catch (const InstanceRunning& error) {
    std::cerr << "price_server: instance " << options->instance.ToString() << " is " << error.what()
              << "; end it first, or choose another --node" << std::endl;
    return feed::ExitCode::kUnsatisfied;
  }

  SegmentPublisher publisher(context, options->instance, options->segments,
                             static_cast<std::uint64_t>(feed::RealTimeNanoseconds()));
  if (!options->quiet) {
    output.Write(fmt::format("{}: {} prices of {} symbols on {} segments\n", options->instance.ToString(),
                             file.prices.size(), file.symbols.size(), options->segments));
  }
  Replay replay(*options, file, publisher, signals);
  replay.Run();
  output.Write(replay.Summary());
  return feed::ExitCode::kOk;
}

}  // namespace
}  // namespace price_server

int main(int argc, char** argv) {
  return feed::RunTool("price_server", [argc, argv] { return price_server::Run(argc, argv); });
}
