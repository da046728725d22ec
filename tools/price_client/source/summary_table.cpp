#include "summary_table.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <vector>

#include "format.h"
#include "quantiles.h"
#include "server_text.h"

namespace price_client {
namespace {

using Row = std::vector<std::string>;

Row PricesRow(const std::string& name, const std::string& state, const Totals& totals) {
  return {name,
          state,
          FormatCount(totals.updates),
          fmt::format("{:.1f}", totals.Rate()),
          FormatCount(totals.gaps),
          FormatCount(totals.missed),
          FormatCount(totals.lost),
          FormatCount(totals.restarts)};
}

Row LatencyRow(const std::string& name, const LatencyDistribution& latency) {
  const bool any = latency.Count() > 0;
  Row row{name};
  for (const auto& quantile : kQuantiles) {
    row.push_back(any ? FormatLatency(latency.Quantile(quantile.fraction)) : "-");
  }
  row.push_back(any ? FormatLatency(latency.Max()) : "-");
  return row;
}

Row ServerRow(const InstanceSnapshot& instance) {
  const auto& notices = instance.notices;
  return {instance.name, ServerText(instance), FormatCount(notices.products.size()), FormatCount(notices.rfqs),
          FormatCount(notices.news)};
}

// The first columns are texts, the rest are numbers.
std::string Table(const std::vector<Row>& rows, std::size_t texts) {
  std::vector<std::size_t> widths(rows.front().size());
  for (const auto& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], row[i].size());
    }
  }
  std::string text;
  for (const auto& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      if (i > 0) {
        text += "  ";
      }
      text += i < texts ? fmt::format("{:<{}}", row[i], widths[i]) : fmt::format("{:>{}}", row[i], widths[i]);
    }
    text += '\n';
  }
  return text;
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
  if (notices.lastNews) {
    text += fmt::format("{} last news: {}\n", instance.name, notices.lastNews->headline);
  }
  return text;
}

}  // namespace

std::string SummaryTable(const Snapshot& snapshot) {
  std::vector<Row> prices{{"prices", "state", "updates", "rate/s", "gaps", "missed", "lost", "restarts"}};
  Row headings{"latency"};
  for (const auto& quantile : kQuantiles) {
    headings.emplace_back(quantile.heading);
  }
  headings.emplace_back("max");
  std::vector<Row> latencies{headings};
  std::vector<Row> servers{{"server", "status", "products", "RFQs", "news"}};
  std::string notices;
  for (const auto& instance : snapshot.instances) {
    prices.push_back(PricesRow(instance.name, NameOf(instance.state), instance.totals));
    latencies.push_back(LatencyRow(instance.name, instance.totals.latency));
    servers.push_back(ServerRow(instance));
    notices += NewsAndProducts(instance);
  }
  const auto total = snapshot.Total();
  prices.push_back(PricesRow("total", "", total));
  latencies.push_back(LatencyRow("total", total.latency));
  if (!notices.empty()) {
    notices.insert(0, 1, '\n');
  }
  return Table(prices, 2) + '\n' + Table(latencies, 1) + '\n' + Table(servers, 2) + notices;
}

}  // namespace price_client
