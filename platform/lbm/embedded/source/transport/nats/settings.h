// What a context is told about its network transport.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "statistics/context_statistics.h"
#include "transport/nats/connection.h"
#include "transport/warnings.h"

namespace engine::transport::nats {

struct NatsSettings {
  ServerSettings server;
  std::string subjectPrefix = "lbm";
  std::string domain;
  std::string contextName;  // told to publishers; may be empty
  std::string identity;     // see Transport::Identity; empty: made anew
  // Contexts that meet in the same place otherwise do not meet here; 0: there is no such place.
  std::uint64_t place = 0;
  std::uint32_t firstSequence = 0;  // of every publication
  std::chrono::milliseconds announcementInterval{2'000};
  std::chrono::milliseconds peerTimeout{10'000};
  std::size_t windowBytes = std::size_t{1} << 20;     // a source may be ahead of a subscriber, with Pacing::kReceiver
  std::size_t sendQueueBytes = std::size_t{4} << 20;  // not yet written, of all sources
  std::size_t receiveQueueBytes = std::size_t{64} << 20;  // not yet delivered, of sources with Pacing::kSource
  // How long DrainMemory may leave the socket alone.
  std::chrono::microseconds pollInterval{5};
  WarningHandler warn;
  std::shared_ptr<ContextStatistics> statistics = std::make_shared<ContextStatistics>();
};

}  // namespace engine::transport::nats
