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

nlohmann::ordered_json ToJson(const feed::ProductInfo& product) {
  return {
      {"symbol", product.symbol.View()},
      {"segment", product.segment},
      {"first_date", feed::ToString(product.firstDate)},
      {"last_date", feed::ToString(product.lastDate)},
      {"prices", product.prices},
  };
}

nlohmann::ordered_json ToJson(const feed::RequestForQuote& rfq) {
  return {
      {"id", rfq.id}, {"time", feed::ToString(rfq.time)}, {"symbol", rfq.symbol.View()}, {"quantity", rfq.quantity}};
}

nlohmann::ordered_json ToJson(const feed::News& news) {
  return {{"time", feed::ToString(news.time)}, {"headline", news.headline}, {"text", news.text}};
}

nlohmann::ordered_json ToJson(const StatusSnapshot& status) {
  return {
      {"state", feed::ToString(status.last.state)},
      {"session", status.last.session},
      {"uptime_seconds", status.last.uptime.count()},
      {"updates_sent", status.last.updatesSent},
      {"age_seconds", status.ageSeconds},
      {"silent", status.isSilent},
  };
}

nlohmann::ordered_json ToJson(const ClientSnapshot& client) {
  return {
      {"id", client.id},
      {"host", client.host},
      {"paused", client.isPaused},
      {"commands", client.commands},
      {"malformed_commands", client.malformedCommands},
      {"dropped", client.dropped},
  };
}

nlohmann::ordered_json ToJson(const InstanceSnapshot& instance);

// null for what is not there.
template <typename T>
nlohmann::ordered_json ToJson(const std::optional<T>& value) {
  return value ? ToJson(*value) : nlohmann::ordered_json();
}

template <typename T>
nlohmann::ordered_json ToJson(const std::vector<T>& values) {
  auto array = nlohmann::ordered_json::array();
  for (const auto& value : values) array.push_back(ToJson(value));
  return array;
}

nlohmann::ordered_json ToJson(const InstanceSnapshot& instance) {
  auto json = ToJson(instance.totals);
  json["instance"] = instance.name;
  json["state"] = NameOf(instance.state);
  json["segments"] = instance.segments;
  json["live_segments"] = instance.liveSegments;
  json["status"] = ToJson(instance.status);
  json["closed_in_order"] = instance.HasClosedInOrder();
  json["products"] = ToJson(instance.notices.products);
  json["rfqs"] = instance.notices.rfqs;
  json["last_rfq"] = ToJson(instance.notices.lastRfq);
  json["news"] = instance.notices.news;
  json["last_news"] = ToJson(instance.notices.lastNews);
  json["symbols"] = ToJson(instance.symbols);
  return json;
}

// How the server's status differs from the one that was known before.
std::string StatusChange(const InstanceSnapshot& before, const InstanceSnapshot& now) {
  if (!now.status) return {};
  const auto& status = *now.status;
  const bool isSame = before.status && before.status->last.session == status.last.session;
  if (!isSame || before.status->last.state != status.last.state) {
    return fmt::format("server is {}, up for {}, session {}", feed::ToString(status.last.state),
                       FormatDuration(static_cast<double>(status.last.uptime.count())), status.last.session);
  }
  if (status.isSilent && !before.status->isSilent) {
    return fmt::format("server is silent: no status for {:.0f} s", status.ageSeconds);
  }
  // One that is gone is not heard.
  if (!status.isSilent && before.status->isSilent && IsAlive(now.state)) return "server is heard again";
  return {};
}

std::string StateChange(const InstanceSnapshot& now) {
  if (now.state != InstanceState::kGone || !now.status) return fmt::format("is {}", NameOf(now.state));
  return fmt::format("is gone, {}", ServerText(now));
}

std::string NewsAndProducts(const InstanceSnapshot& instance) {
  constexpr std::size_t kMaxNames = 10;
  const auto& notices = instance.notices;
  std::string text;
  if (!notices.products.empty()) {
    text += instance.name + " products:";
    const auto shown = std::min(kMaxNames, notices.products.size());
    for (std::size_t i = 0; i < shown; ++i) text += fmt::format(" {}", notices.products[i].symbol.View());
    if (shown < notices.products.size()) text += fmt::format(" and {} more", notices.products.size() - shown);
    text += '\n';
  }
  if (notices.lastNews) text += fmt::format("{} last news: {}\n", instance.name, notices.lastNews->headline);
  return text;
}

}  // namespace

std::string ServerText(const InstanceSnapshot& instance) {
  if (instance.state == InstanceState::kNeverSeen) return {};
  if (!instance.status) return "no status";
  const auto& status = *instance.status;
  if (instance.HasClosedInOrder()) return "closed in order";
  if (instance.state == InstanceState::kGone) return "ended without closing";
  if (status.isSilent) return fmt::format("no status for {:.0f} s", status.ageSeconds);
  return fmt::format("{} {}", feed::ToString(status.last.state),
                     FormatDuration(static_cast<double>(status.last.uptime.count()) + status.ageSeconds));
}

std::string ProgressLine(const InstanceSnapshot& instance, double elapsedSeconds) {
  const auto& latency = instance.totals.latency;
  return fmt::format(
      "{:8.1f}s {} {} segments={}/{} updates={} rate={:.0f}/s gaps={} "
      "missed={} lost={} p50={} p99={} products={} rfqs={} news={}\n",
      elapsedSeconds, instance.name, NameOf(instance.state), instance.liveSegments, instance.segments,
      instance.totals.updates, instance.currentRate, instance.totals.gaps, instance.totals.missed, instance.totals.lost,
      latency.Count() > 0 ? FormatLatency(latency.Quantile(0.5)) : "-",
      latency.Count() > 0 ? FormatLatency(latency.Quantile(0.99)) : "-", instance.notices.products.size(),
      instance.notices.rfqs, instance.notices.news);
}

std::string ChangeLines(const InstanceSnapshot& before, const InstanceSnapshot& now, double elapsedSeconds) {
  std::string text;
  const auto add = [&](const std::string& what) {
    text += fmt::format("{:8.1f}s {} {}\n", elapsedSeconds, now.name, what);
  };
  // A server that ends says so before it is gone.
  const auto status = StatusChange(before, now);
  if (now.state == InstanceState::kGone && !status.empty()) add(status);
  if (now.state != before.state) add(StateChange(now));
  if (now.state != InstanceState::kGone && !status.empty()) add(status);
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
  if (now.notices.products.size() != before.notices.products.size()) {
    add(fmt::format("products: {}", now.notices.products.size()));
  }
  if (now.notices.news > before.notices.news && now.notices.lastNews) {
    add("news: " + now.notices.lastNews->headline);
  }
  return text;
}

std::string ChangeLines(const ClientSnapshot& before, const ClientSnapshot& now, double elapsedSeconds) {
  std::string text;
  const auto add = [&](const std::string& what) {
    text += fmt::format("{:8.1f}s client {} {}\n", elapsedSeconds, now.id, what);
  };
  if (before.id.empty()) add("takes commands on host " + now.host);
  if (now.isPaused != before.isPaused) add(now.isPaused ? "is paused: it takes no prices" : "is resumed");
  if (now.malformedCommands > before.malformedCommands) {
    add(fmt::format("malformed commands: {} more", now.malformedCommands - before.malformedCommands));
  }
  if (now.dropped > before.dropped) add(fmt::format("dropped: {} more messages", now.dropped - before.dropped));
  return text;
}

std::string ReportText(const Snapshot& snapshot) {
  const auto total = snapshot.Total();
  return fmt::format("{}{} of {} instances up, {} updates, {:.0f}/s, gaps {}, lost {}, p50 {}, p99 {}",
                     snapshot.client.isPaused ? "paused, " : "", snapshot.AliveInstances(), snapshot.instances.size(),
                     total.updates, snapshot.CurrentRate(), total.gaps, total.lost,
                     FormatLatency(total.latency.Quantile(0.5)), FormatLatency(total.latency.Quantile(0.99)));
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
      put(fmt::format("latency_{}_ns", quantile.jsonKey), total.latency.Quantile(quantile.fraction));
    }
    put("latency_max_ns", total.latency.Max());
  }
  return figures;
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

  std::vector<Row> servers{{"instance", "server", "products", "RFQs", "news"}};
  std::string notices;
  for (const auto& instance : snapshot.instances) {
    servers.push_back({instance.name, ServerText(instance), FormatCount(instance.notices.products.size()),
                       FormatCount(instance.notices.rfqs), FormatCount(instance.notices.news)});
    notices += NewsAndProducts(instance);
  }
  if (!notices.empty()) notices.insert(0, 1, '\n');
  return Table(rows) + '\n' + Table(servers) + notices;
}

std::string SummaryJson(const Snapshot& snapshot) {
  const nlohmann::ordered_json document{{"seconds", snapshot.elapsedSeconds},
                                        {"client", ToJson(snapshot.client)},
                                        {"total", ToJson(snapshot.Total())},
                                        {"instances", ToJson(snapshot.instances)}};
  return document.dump(2) + '\n';
}

}  // namespace price_client
