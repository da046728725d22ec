#include "snapshot.h"

#include <algorithm>

namespace price_client {

const char* NameOf(InstanceState state) {
  switch (state) {
    case InstanceState::kNeverSeen:
      return "never seen";
    case InstanceState::kUp:
      return "up";
    case InstanceState::kGone:
      return "gone";
    case InstanceState::kBack:
      return "back";
  }
  return "";
}

double SymbolSnapshot::Change() const {
  return static_cast<double>(price.Units() - previousPrice.Units()) / feed::Price::kUnitsPerOne;
}

double SymbolSnapshot::ChangePercent() const {
  return previousPrice.Units() > 0 ? Change() / previousPrice.ToDouble() * 100 : 0;
}

void Totals::Add(const Totals& other) {
  updates += other.updates;
  gaps += other.gaps;
  missed += other.missed;
  lost += other.lost;
  restarts += other.restarts;
  malformed += other.malformed;
  untracked += other.untracked;
  if (firstAt == 0 || (other.firstAt != 0 && other.firstAt < firstAt)) {
    firstAt = other.firstAt;
  }
  lastAt = std::max(lastAt, other.lastAt);
  latency.Add(other.latency);
}

double Totals::Rate() const {
  const auto span = lastAt - firstAt;
  return updates > 1 && span > 0 ? static_cast<double>(updates - 1) * 1e9 / static_cast<double>(span) : 0;
}

Totals Snapshot::Total() const {
  Totals total;
  for (const auto& instance : instances) {
    total.Add(instance.totals);
  }
  return total;
}

double Snapshot::CurrentRate() const {
  double rate = 0;
  for (const auto& instance : instances) {
    rate += instance.currentRate;
  }
  return rate;
}

LatencyHistogram Snapshot::RecentLatency() const {
  LatencyHistogram latency;
  for (const auto& instance : instances) {
    latency.Add(instance.recentLatency);
  }
  return latency;
}

std::size_t Snapshot::AliveInstances() const {
  return static_cast<std::size_t>(std::count_if(
      instances.begin(), instances.end(), [](const InstanceSnapshot& instance) { return IsAlive(instance.state); }));
}

}  // namespace price_client
