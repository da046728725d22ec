// Quantiles of latencies as people read them.
#pragma once

#include <string>

#include "cli/format.h"
#include "latency_histogram.h"

namespace price_client {

// A quantile as cli::FormatLatency has it; "-" when there are no latencies.
inline std::string QuantileText(const LatencyHistogram& latencies, double fraction) {
  return latencies.Count() > 0 ? cli::FormatLatency(latencies.Quantile(fraction)) : "-";
}

}  // namespace price_client
