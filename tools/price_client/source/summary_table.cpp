#include "summary_table.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>

#include "cli/format.h"
#include "cli/table.h"
#include "quantile_text.h"
#include "quantiles.h"
#include "server_text.h"

namespace price_client {
namespace {

constexpr double kRecentSeconds = 10;

using Row = cli::Table::Row;

Row PricesRow(const std::string& name, const std::string& state, const Totals& totals) {
  return {name,
          state,
          cli::FormatCount(totals.updates),
          fmt::format("{:.1f}", totals.Rate()),
          cli::FormatCount(totals.gaps),
          cli::FormatCount(totals.missed),
          cli::FormatCount(totals.lost),
          cli::FormatCount(totals.restarts)};
}

Row LatencyRow(const std::string& name, const LatencyHistogram& latency) {
  Row row{name};
  for (const auto& quantile : kQuantiles) {
    row.push_back(QuantileText(latency, quantile.fraction));
  }
  row.push_back(latency.Count() > 0 ? cli::FormatLatency(latency.Max()) : "-");
  return row;
}

Row ServerRow(const InstanceSnapshot& instance) {
  const auto& notices = instance.notices;
  return {instance.name, ServerText(instance), cli::FormatCount(notices.products.size()),
          cli::FormatCount(notices.rfqs), cli::FormatCount(notices.news)};
}

Row LatencyHeadings(const char* what) {
  Row headings{what};
  for (const auto& quantile : kQuantiles) {
    headings.emplace_back(quantile.heading);
  }
  headings.emplace_back("max");
  return headings;
}

std::string NewsAndProducts(const InstanceSnapshot& instance) {
  constexpr std::size_t kMaxNames = 10;
  const auto& notices = instance.notices;
  std::string text;
  if (!notices.products.empty()) {
    text += instance.name + " products:";
    const auto shown = std::min(kMaxNames, notices.products.size());
    for (std::size_t i = 0; i < shown; ++i) {
      text += fmt::format(" {}", notices.products[i].symbol.View());
    }
    if (shown < notices.products.size()) {
      text += fmt::format(" and {} more", notices.products.size() - shown);
    }
    text += '\n';
  }
  for (const auto& what : {SegmentsText(instance), UntrackedText(instance)}) {
    if (!what.empty()) {
      text += instance.name + ' ' + what + '\n';
    }
  }
  if (notices.lastNews) {
    text += fmt::format("{} last news: {}\n", instance.name, notices.lastNews->headline);
  }
  return text;
}

}  // namespace

std::string SummaryTable(const Snapshot& snapshot) {
  cli::Table prices(2);
  cli::Table latencies(1);
  cli::Table recentLatencies(1);
  cli::Table servers(2);
  prices.Add({"prices", "state", "updates", "rate/s", "gaps", "missed", "lost", "restarts"});
  latencies.Add(LatencyHeadings("latency"));
  recentLatencies.Add(LatencyHeadings("last 10 s"));
  servers.Add({"server", "status", "products", "RFQs", "news"});
  std::string notices;
  for (const auto& instance : snapshot.instances) {
    prices.Add(PricesRow(instance.name, NameOf(instance.state), instance.totals));
    latencies.Add(LatencyRow(instance.name, instance.totals.latency));
    recentLatencies.Add(LatencyRow(instance.name, instance.recentLatency));
    servers.Add(ServerRow(instance));
    notices += NewsAndProducts(instance);
  }
  const auto total = snapshot.Total();
  prices.Add(PricesRow("total", "", total));
  latencies.Add(LatencyRow("total", total.latency));
  recentLatencies.Add(LatencyRow("total", snapshot.RecentLatency()));
  if (!notices.empty()) {
    notices.insert(0, 1, '\n');
  }
  // Until then both say the same.
  const auto recent = snapshot.elapsedSeconds > kRecentSeconds ? '\n' + recentLatencies.ToString() : std::string();
  return prices.ToString() + '\n' + latencies.ToString() + recent + '\n' + servers.ToString() + notices;
}

}  // namespace price_client
