// The sending of recorded prices.
#pragma once

#include <atomic>
#include <string>

#include "cli/signal_wait.h"
#include "feed/prices_file.h"
#include "options.h"
#include "product_catalogue.h"
#include "progress.h"
#include "segment_publisher.h"

namespace price_server {

// Replays until the file, the options, the user or RequestStop ends it.
//
// Threads: for one; RequestStop on any.
class Replay {
 public:
  // All arguments have to outlive the replay.
  Replay(const Options& options, const feed::PricesFile& file, const ProductCatalogue& catalogue,
         SegmentPublisher& publisher, Progress& progress, cli::SignalWait& signals)
      : m_options(options),
        m_file(file),
        m_catalogue(catalogue),
        m_publisher(publisher),
        m_progress(progress),
        m_signals(signals) {}

  // Throws lbm::LbmError.
  void Run();

  // Makes Run return soon.
  void RequestStop();

  // One line about what was sent.
  std::string Summary() const;

 private:
  using Clock = cli::SignalWait::Clock;

  bool Send(const feed::RecordedPrice& price);
  bool WaitForClient();
  bool StopsBefore(Clock::time_point deadline);

  const Options& m_options;
  const feed::PricesFile& m_file;
  const ProductCatalogue& m_catalogue;
  SegmentPublisher& m_publisher;
  Progress& m_progress;
  cli::SignalWait& m_signals;
  std::atomic<bool> m_isStopRequested{false};
  Clock::time_point m_start;
  Clock::time_point m_end = Clock::time_point::max();
};

}  // namespace price_server
