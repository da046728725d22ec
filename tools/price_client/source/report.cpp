#include "report.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

#include "format.h"

namespace price_client {
namespace {

struct NamedQuantile {
  const char* heading;
  const char* jsonKey;
  double fraction;
};
constexpr std::array<NamedQuantile, 4> kQuantiles{{
    {"p50", "p50", 0.5},
    {"p90", "p90", 0.9},
    {"p99", "p99", 0.99},
    {"p99.9", "p99_9", 0.999},
}};

using Row = std::vector<std::string>;

Row SummaryRow(const std::string& name, const std::string& state, const Totals& totals) {
  Row row{name,
          state,
          FormatCount(totals.updates),
          fmt::format("{:.1f}", totals.Rate()),
          FormatCount(totals.gaps),
          FormatCount(totals.missed),
          FormatCount(totals.lost),
          FormatCount(totals.restarts)};
  const bool any = totals.latency.Count() > 0;
  for (const auto& quantile : kQuantiles) {
    row.push_back(any ? FormatLatency(totals.latency.Quantile(quantile.fraction)) : "-");
  }
  row.push_back(any ? FormatLatency(totals.latency.Max()) : "-");
  return row;
}

std::string Table(const std::vector<Row>& rows) {
  constexpr std::size_t kLeftAligned = 2;  // name and state; the rest are numbers
  std::vector<std::size_t> widths(rows.front().size());
  for (const auto& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  std::string text;
  for (const auto& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      if (i > 0) text += "  ";
      text += i < kLeftAligned ? fmt::format("{:<{}}", row[i], widths[i]) : fmt::format("{:>{}}", row[i], widths[i]);
    }
    text += '\n';
  }
  return text;
}

nlohmann::ordered_json ToJson(const Totals& totals) {
  nlohmann::ordered_json json{
      {"updates", totals.updates},     {"rate", totals.Rate()},         {"gaps", totals.gaps},
      {"missed", totals.missed},       {"lost", totals.lost},           {"restarts", totals.restarts},
      {"malformed", totals.malformed}, {"untracked", totals.untracked}, {"latency_ns", nullptr},
  };
  if (totals.latency.Count() > 0) {
    auto& latency = json["latency_ns"] = nlohmann::ordered_json::object();
    for (const auto& quantile : kQuantiles) latency[quantile.jsonKey] = totals.latency.Quantile(quantile.fraction);
    latency["max"] = totals.latency.Max();
  }
  return json;
}

nlohmann::ordered_json ToJson(const SymbolSnapshot& symbol) {
  return {
      {"symbol", symbol.symbol.View()},      {"price", symbol.price.ToDouble()}, {"change", symbol.Change()},
      {"date", feed::ToString(symbol.date)}, {"updates", symbol.updates},
  };
}

}  // namespace

std::string ProgressLine(const InstanceSnapshot& instance, double elapsedSeconds) {
  const auto& latency = instance.totals.latency;
  return fmt::format(
      "{:8.1f}s {} {} segments={}/{} updates={} rate={:.0f}/s gaps={} "
      "missed={} lost={} p50={} p99={}\n",
      elapsedSeconds, instance.name, NameOf(instance.state), instance.liveSegments, instance.segments,
      instance.totals.updates, instance.currentRate, instance.totals.gaps, instance.totals.missed, instance.totals.lost,
      latency.Count() > 0 ? FormatLatency(latency.Quantile(0.5)) : "-",
      latency.Count() > 0 ? FormatLatency(latency.Quantile(0.99)) : "-");
}

std::string ChangeLines(const InstanceSnapshot& before, const InstanceSnapshot& now, double elapsedSeconds) {
  std::string text;
  const auto add = [&](const std::string& what) {
    text += fmt::format("{:8.1f}s {} {}\n", elapsedSeconds, now.name, what);
  };
  if (now.state != before.state) add(fmt::format("is {}", NameOf(now.state)));
  if (now.totals.restarts > before.totals.restarts) add("server restarted");
  if (now.totals.gaps > before.totals.gaps) {
    add(fmt::format("gaps: {} more, {} updates missed", now.totals.gaps - before.totals.gaps,
                    now.totals.missed - before.totals.missed));
  }
  if (now.totals.lost > before.totals.lost) {
    add(fmt::format("lost: {} more messages", now.totals.lost - before.totals.lost));
  }
  if (now.totals.malformed > before.totals.malformed) {
    add(fmt::format("malformed: {} more messages", now.totals.malformed - before.totals.malformed));
  }
  return text;
}

std::string SummaryTable(const Snapshot& snapshot) {
  Row header{"instance", "state", "updates", "rate/s", "gaps", "missed", "lost", "restarts"};
  for (const auto& quantile : kQuantiles) header.emplace_back(quantile.heading);
  header.emplace_back("max");
  std::vector<Row> rows{header};
  for (const auto& instance : snapshot.instances) {
    rows.push_back(SummaryRow(instance.name, NameOf(instance.state), instance.totals));
  }
  rows.push_back(SummaryRow("total", "", snapshot.Total()));
  return Table(rows);
}

std::string SummaryJson(const Snapshot& snapshot) {
  auto instances = nlohmann::ordered_json::array();
  for (const auto& instance : snapshot.instances) {
    auto symbols = nlohmann::ordered_json::array();
    for (const auto& symbol : instance.symbols) symbols.push_back(ToJson(symbol));
    auto json = ToJson(instance.totals);
    json["instance"] = instance.name;
    json["state"] = NameOf(instance.state);
    json["segments"] = instance.segments;
    json["live_segments"] = instance.liveSegments;
    json["symbols"] = symbols;
    instances.push_back(json);
  }
  const nlohmann::ordered_json document{
      {"seconds", snapshot.elapsedSeconds}, {"total", ToJson(snapshot.Total())}, {"instances", instances}};
  return document.dump(2) + '\n';
}

}  // namespace price_client
