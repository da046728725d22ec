#include "summary_json.h"

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "quantiles.h"

namespace price_client {
namespace {

nlohmann::ordered_json ToJson(const LatencyHistogram& latencies) {
  if (latencies.Count() == 0) {
    return nullptr;
  }
  auto json = nlohmann::ordered_json::object();
  for (const auto& quantile : kQuantiles) {
    json[quantile.key] = latencies.Quantile(quantile.fraction);
  }
  json["max"] = latencies.Max();
  return json;
}

nlohmann::ordered_json ToJson(const Totals& totals, const LatencyHistogram& recentLatency) {
  return {
      {"updates", totals.updates},
      {"rate", totals.Rate()},
      {"gaps", totals.gaps},
      {"missed", totals.missed},
      {"lost", totals.lost},
      {"restarts", totals.restarts},
      {"malformed", totals.malformed},
      {"untracked", totals.untracked},
      {"latency_ns", ToJson(totals.latency)},
      {"latency_10s_ns", ToJson(recentLatency)},
  };
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

// Identifiers of 64 bits are texts: many readers of JSON keep no more than 53 bits of a number.
nlohmann::ordered_json ToJson(const feed::RequestForQuote& rfq) {
  return {{"id", std::to_string(rfq.id)},
          {"time", feed::ToString(rfq.time)},
          {"symbol", rfq.symbol.View()},
          {"quantity", rfq.quantity}};
}

nlohmann::ordered_json ToJson(const feed::News& news) {
  return {{"time", feed::ToString(news.time)}, {"headline", news.headline}, {"text", news.text}};
}

nlohmann::ordered_json ToJson(const StatusSnapshot& status) {
  return {
      {"state", feed::ToString(status.last.state)},
      {"session", std::to_string(status.last.session)},
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
  for (const auto& value : values) {
    array.push_back(ToJson(value));
  }
  return array;
}

nlohmann::ordered_json ToJson(const InstanceSnapshot& instance) {
  auto json = ToJson(instance.totals, instance.recentLatency);
  json["instance"] = instance.name;
  json["state"] = NameOf(instance.state);
  json["segments"] = instance.segments;
  json["live_segments"] = instance.liveSegments;
  json["unreceived_segments"] = instance.unreceivedSegments;
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

}  // namespace

std::string SummaryJson(const Snapshot& snapshot) {
  const nlohmann::ordered_json document{{"seconds", snapshot.elapsedSeconds},
                                        {"client", ToJson(snapshot.client)},
                                        {"total", ToJson(snapshot.Total(), snapshot.RecentLatency())},
                                        {"instances", ToJson(snapshot.instances)}};
  return document.dump(2) + '\n';
}

}  // namespace price_client
