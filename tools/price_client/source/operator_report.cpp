#include "operator_report.h"

#include <fmt/format.h>

#include <cstdint>
#include <utility>

#include "cli/format.h"
#include "quantiles.h"

namespace price_client {

std::string ReportText(const Snapshot& snapshot) {
  const auto total = snapshot.Total();
  return fmt::format("{}{} of {} instances up, {} updates, {:.0f}/s, gaps {}, lost {}, p50 {}, p99 {}",
                     snapshot.client.isPaused ? "paused, " : "", snapshot.AliveInstances(), snapshot.instances.size(),
                     total.updates, snapshot.CurrentRate(), total.gaps, total.lost,
                     cli::FormatLatency(total.latency.Quantile(0.5)), cli::FormatLatency(total.latency.Quantile(0.99)));
}

feed::CommandAnswer::Figures ReportFigures(const Snapshot& snapshot) {
  const auto total = snapshot.Total();
  feed::CommandAnswer::Figures figures;
  const auto put = [&figures](std::string name, auto value) {
    figures[std::move(name)] = static_cast<std::int64_t>(value);
  };
  put("elapsed_ms", snapshot.elapsedSeconds * 1e3);
  put("paused", snapshot.client.isPaused);
  put("commands", snapshot.client.commands);
  put("malformed_commands", snapshot.client.malformedCommands);
  put("dropped", snapshot.client.dropped);
  put("instances", snapshot.instances.size());
  put("instances_up", snapshot.AliveInstances());
  put("updates", total.updates);
  put("rate", snapshot.CurrentRate());
  put("gaps", total.gaps);
  put("missed", total.missed);
  put("lost", total.lost);
  put("restarts", total.restarts);
  put("malformed", total.malformed);
  std::uint64_t products = 0;
  std::uint64_t rfqs = 0;
  std::uint64_t news = 0;
  for (const auto& instance : snapshot.instances) {
    products += instance.notices.products.size();
    rfqs += instance.notices.rfqs;
    news += instance.notices.news;
  }
  put("products", products);
  put("rfqs", rfqs);
  put("news", news);
  if (total.latency.Count() > 0) {
    for (const auto& quantile : kQuantiles) {
      put(fmt::format("latency_{}_ns", quantile.key), total.latency.Quantile(quantile.fraction));
    }
    put("latency_max_ns", total.latency.Max());
  }
  return figures;
}

}  // namespace price_client
