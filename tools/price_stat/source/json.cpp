#include "json.h"

#include <utility>

namespace price_stat {
namespace {

using Json = nlohmann::ordered_json;

const char* NameOf(FieldType type) {
  switch (type) {
    case FieldType::kCounter:
      return "counter";
    case FieldType::kGauge:
      return "gauge";
    case FieldType::kRecentMaximum:
      return "recent_maximum";
    case FieldType::kHistogram:
      return "histogram";
  }
  return "";
}

Json DistributionJson(const Distribution& values) {
  return {{"count", values.count},          {"sum", values.sum},           {"max", values.maximum},
          {"p50", values.Quantile(0.5)},    {"p90", values.Quantile(0.9)}, {"p99", values.Quantile(0.99)},
          {"p99_9", values.Quantile(0.999)}};
}

Json BucketsJson(const Distribution& values) {
  auto buckets = Json::array();
  for (std::size_t i = 0; i < values.buckets.size(); ++i) {
    if (values.buckets[i] != 0) {
      buckets.push_back(Json::array({zq::statistics::BucketBegin(i), values.buckets[i]}));
    }
  }
  return buckets;
}

Json ValueJson(FieldType type, const Value& value) {
  switch (type) {
    case FieldType::kCounter:
      return value.Count();
    case FieldType::kGauge:
      return value.number;
    case FieldType::kRecentMaximum:
      return {{"last_10s", value.recentMaximum}, {"all", value.Count()}};
    case FieldType::kHistogram:
      Json json{{"last_10s", DistributionJson(*value.last10s)},
                {"last_60s", DistributionJson(*value.last60s)},
                {"all", DistributionJson(*value.all)}};
      json["all"]["buckets"] = BucketsJson(*value.all);
      return json;
  }
  return nullptr;
}

Json KindJson(const Kind& kind) {
  auto fields = Json::object();
  for (const Field& field : kind.fields) {
    fields[field.name] = {{"type", NameOf(field.type)}, {"unit", field.unit}, {"help", field.help}};
  }
  return {{"help", kind.help}, {"fields", std::move(fields)}};
}

Json RatesJson(const RowValues& row, const Progress& progress) {
  auto rates = Json::object();
  for (std::size_t i = 0; i < row.values.size(); ++i) {
    if (row.kind->fields[i].type == FieldType::kCounter) {
      const auto rate = progress.RateOf(row, i);
      rates[row.kind->fields[i].name] = rate ? Json(*rate) : Json(nullptr);
    }
  }
  return rates;
}

Json RowJson(const RowValues& row, const Progress* progress) {
  auto labels = Json::object();
  for (std::size_t i = 0; i < row.labels.size(); ++i) {
    labels[row.kind->labels[i]] = row.labels[i];
  }
  auto values = Json::object();
  for (std::size_t i = 0; i < row.values.size(); ++i) {
    values[row.kind->fields[i].name] = ValueJson(row.kind->fields[i].type, row.values[i]);
  }
  Json json{{"kind", row.kind->name}, {"id", row.id}, {"labels", std::move(labels)}, {"values", std::move(values)}};
  if (progress != nullptr) {
    json["per_second"] = RatesJson(row, *progress);
  }
  return json;
}

}  // namespace

Json HeadJson(const Process& process) {
  Json json{{"path", process.path},
            {"program", nullptr},
            {"process", nullptr},
            {"state", NameOf(process.state)},
            {"hang_ns", process.hangNanoseconds},
            {"fault", process.fault.empty() ? Json(nullptr) : Json(process.fault)}};
  if (const auto& snapshot = process.snapshot) {
    json["program"] = snapshot->program;
    json["process"] = snapshot->process;
    json["start_realtime_ns"] = snapshot->startRealtime;
    json["start_monotonic_ns"] = snapshot->startMonotonic;
    json["taken_monotonic_ns"] = snapshot->takenMonotonic;
    json["rows_in_other"] = snapshot->rowsInOther;
    json["page_bytes"] = snapshot->bytes;
  }
  auto& contexts = json["contexts"] = Json::array();
  for (const auto& context : process.contexts) {
    contexts.push_back({{"context", context.name},
                        {"handle", context.handle},
                        {"state", NameOf(context.state)},
                        {"hang_ns", context.hangNanoseconds}});
  }
  return json;
}

Json FullJson(const Process& process, const Selection& selection, const Progress* progress) {
  auto json = HeadJson(process);
  if (const auto& snapshot = process.snapshot) {
    auto& kinds = json["kinds"] = Json::object();
    for (const auto& kind : snapshot->kinds) {
      if (selection.TakesKind(kind->name)) {
        kinds[kind->name] = KindJson(*kind);
      }
    }
    auto& rows = json["rows"] = Json::array();
    for (const auto& row : snapshot->rows) {
      if (selection.Takes(row)) {
        rows.push_back(RowJson(row, progress));
      }
    }
  }
  return json;
}

Json SelectionJson(const Selection& selection) {
  return {{"kinds", selection.kinds}, {"contexts", selection.contexts}};
}

Selection SelectionOf(const Json& document) {
  const auto found = document.find("selection");
  if (found == document.end()) {
    return {};
  }
  return {.kinds = found->at("kinds").get<std::vector<std::string>>(),
          .contexts = found->at("contexts").get<std::vector<std::string>>()};
}

std::string ToText(const Json& document) { return document.dump(2, ' ', false, Json::error_handler_t::replace) + '\n'; }

}  // namespace price_stat
