// The sending of recorded prices.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stop_token>
#include <string>

#include "feed/prices_file.h"
#include "options.h"
#include "product_catalogue.h"
#include "progress.h"
#include "segment_publisher.h"

namespace price_server {

// Replays until the file or the options end it, or it is asked to stop.
//
// Threads: for one.
class Replay {
 public:
  // All arguments have to outlive the replay.
  Replay(const Options& options, const feed::PricesFile& file, const ProductCatalogue& catalogue,
         SegmentPublisher& publisher, Progress& progress)
      : m_options(options), m_file(file), m_catalogue(catalogue), m_publisher(publisher), m_progress(progress) {}

  // Throws lbm::LbmError.
  void Run(const std::stop_token& stop);

  // One line about what was sent.
  std::string Summary() const;

 private:
  using Clock = std::chrono::steady_clock;

  bool Send(const feed::RecordedPrice& price);
  void WaitForClient(const std::stop_token& stop);
  void WaitUntil(Clock::time_point time, const std::stop_token& stop);

  const Options& m_options;
  const feed::PricesFile& m_file;
  const ProductCatalogue& m_catalogue;
  SegmentPublisher& m_publisher;
  Progress& m_progress;
  Clock::time_point m_start;
  std::mutex m_mutex;  // guards nothing; waiting takes one
  std::condition_variable_any m_stopped;
};

}  // namespace price_server
