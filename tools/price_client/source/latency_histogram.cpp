#include "latency_histogram.h"

#include <algorithm>
#include <cmath>

namespace price_client {

void LatencyHistogram::Add(const LatencyHistogram& other) {
  for (std::size_t i = 0; i < m_counts.size(); ++i) {
    m_counts[i] += other.m_counts[i];
  }
  m_total += other.m_total;
  m_max = std::max(m_max, other.m_max);
}

LatencyHistogram LatencyHistogram::Since(const LatencyHistogram& earlier) const {
  LatencyHistogram difference;
  for (std::size_t i = 0; i < m_counts.size(); ++i) {
    difference.m_counts[i] = m_counts[i] - earlier.m_counts[i];
    if (difference.m_counts[i] > 0) {
      difference.m_max = std::min(LatencyBuckets::Highest(i), m_max);
    }
  }
  difference.m_total = m_total - earlier.m_total;
  return difference;
}

std::uint64_t LatencyHistogram::Quantile(double fraction) const {
  if (m_total == 0) {
    return 0;
  }
  const auto wanted =
      std::max<std::uint64_t>(1, static_cast<std::uint64_t>(std::ceil(fraction * static_cast<double>(m_total))));
  std::uint64_t seen = 0;
  for (std::size_t i = 0; i < m_counts.size(); ++i) {
    seen += m_counts[i];
    if (seen >= wanted) {
      return std::min(LatencyBuckets::Highest(i), m_max);
    }
  }
  return m_max;
}

}  // namespace price_client
