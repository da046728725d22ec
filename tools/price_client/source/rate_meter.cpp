#include "rate_meter.h"

#include <utility>

namespace price_client {

Snapshot RateMeter::Measure(Snapshot snapshot, Clock::time_point now) {
  auto& instances = snapshot.instances;
  Reading reading{now, {}};
  for (const auto& instance : instances) {
    reading.updates.push_back(instance.totals.updates);
  }
  while (m_readings.size() > 1 && now - m_readings[1].at >= kWindow) {
    m_readings.pop_front();
  }
  if (!m_readings.empty()) {
    const auto& before = m_readings.front();
    const auto seconds = std::chrono::duration<double>(now - before.at).count();
    for (std::size_t i = 0; i < instances.size() && seconds > 0; ++i) {
      instances[i].currentRate = static_cast<double>(reading.updates[i] - before.updates[i]) / seconds;
    }
  }
  m_readings.push_back(std::move(reading));
  MeasureLatency(instances, now);
  snapshot.elapsedSeconds = std::chrono::duration<double>(now - m_start).count();
  return snapshot;
}

void RateMeter::MeasureLatency(std::vector<InstanceSnapshot>& instances, Clock::time_point now) {
  while (m_latencies.size() > 1 && now - m_latencies[1].at >= kLatencyWindow) {
    m_latencies.pop_front();
  }
  const bool isWindowOld = !m_latencies.empty() && now - m_latencies.front().at >= kLatencyWindow;
  for (std::size_t i = 0; i < instances.size(); ++i) {
    const auto& all = instances[i].totals.latency;
    instances[i].recentLatency = isWindowOld ? all.Since(m_latencies.front().ofInstances[i]) : all;
  }
  if (m_latencies.empty() || now - m_latencies.back().at >= kLatencyStep) {
    m_latencies.push_back({now, {}});
    for (const auto& instance : instances) {
      m_latencies.back().ofInstances.push_back(instance.totals.latency);
    }
  }
}

}  // namespace price_client
