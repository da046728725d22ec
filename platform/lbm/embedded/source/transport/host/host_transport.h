// The transport between the contexts of one machine and one user.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "statistics/context_statistics.h"
#include "transport/transport.h"
#include "transport/warnings.h"

namespace engine::transport::host {

struct HostSettings {
  std::string runtimeDirectory;     // see RuntimeDirectory()
  std::string domain;               // a file name: the sub-directory in which the domain's contexts meet
  std::string contextName;          // told to peers; may be empty
  std::size_t ringBytes = 1 << 20;  // of the ring to each subscribed context; rounded up to a power of two
  std::uint32_t firstSequence = 0;  // of every publication
  WarningHandler warn;              // of faults of peers and refusals of the system
  std::shared_ptr<ContextStatistics> statistics = std::make_shared<ContextStatistics>();
};

// Joins the domain. Throws as the transport's operations do.
std::unique_ptr<Transport> JoinHostDomain(const HostSettings& settings);

}  // namespace engine::transport::host
