// The transport between the contexts of one machine and one user.
#pragma once

#include <chrono>
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
  // How long a process that is stopped while it joins may keep this one waiting.
  std::chrono::milliseconds joinPatience{10'000};
  WarningHandler warn;  // of faults of peers and refusals of the system
  std::shared_ptr<ContextStatistics> statistics = std::make_shared<ContextStatistics>();
};

// Joins the domain and returns when every context that was there is linked. Throws as the transport's operations do.
std::unique_ptr<Transport> JoinHostDomain(const HostSettings& settings);

}  // namespace engine::transport::host
