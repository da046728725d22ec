// Statistics in the text formats that monitoring systems scrape.
#pragma once

#include <string>
#include <vector>

#include "processes.h"

namespace price_stat {

enum class MetricsFormat {
  kOpenMetrics,
  kText,  // its predecessor, version 0.0.4, which every scraper and promtool understand
};

inline constexpr const char* kOpenMetricsType = "application/openmetrics-text; version=1.0.0; charset=utf-8";
inline constexpr const char* kTextMetricsType = "text/plain; version=0.0.4; charset=utf-8";

// What the living processes count; those that have ended, or whose pages cannot be read, are only counted themselves.
// docs/monitoring.md says how rows become metrics. What is on the pages may be anything: the text is valid all the
// same.
std::string Metrics(const std::vector<Process>& processes, MetricsFormat format);

}  // namespace price_stat
