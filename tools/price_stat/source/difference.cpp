#include "difference.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "json.h"

namespace price_stat {
namespace {

using Json = nlohmann::ordered_json;

// Two runs of a program may have had the same number.
using ProcessKey = std::pair<std::int64_t, std::uint64_t>;
using RowKey = std::pair<std::string, std::uint64_t>;

std::map<ProcessKey, const Json*> ProcessesOf(const Json& document) {
  std::map<ProcessKey, const Json*> processes;
  for (const auto& process : document.at("processes")) {
    // Pages that could not be read have no rows.
    if (process.contains("rows")) {
      processes.emplace(
          ProcessKey{process.at("process").get<std::int64_t>(), process.at("start_monotonic_ns").get<std::uint64_t>()},
          &process);
    }
  }
  return processes;
}

using Selections = std::array<Selection, 2>;  // of both documents

// The rows that neither document leaves out, in their order.
std::vector<std::pair<RowKey, const Json*>> RowsOf(const Json& process, const Selections& selections) {
  std::vector<std::pair<RowKey, const Json*>> rows;
  for (const auto& row : process.at("rows")) {
    const auto kind = row.at("kind").get<std::string>();
    const auto& labels = row.at("labels");
    const auto isMeant = [&](const Selection& selection) {
      return selection.TakesKind(kind) &&
             selection.TakesContext(labels.value("context", std::string()), labels.value("handle", std::string()));
    };
    if (std::all_of(selections.begin(), selections.end(), isMeant)) {
      rows.emplace_back(RowKey{kind, row.at("id").get<std::uint64_t>()}, &row);
    }
  }
  return rows;
}

// A field's number: of large fields the one of all time.
Json NumberOf(const std::string& type, const Json& value) {
  if (type == "recent_maximum") {
    return value.at("all");
  }
  return type == "histogram" ? value.at("all").at("count") : value;
}

Distribution Read(const Json& value) {
  Distribution values;
  for (const auto& bucket : value.at("all").at("buckets")) {
    const auto index = zq::statistics::BucketOf(bucket.at(0).get<std::uint64_t>());
    values.buckets[index] = bucket.at(1).get<std::uint64_t>();
    values.count += values.buckets[index];
  }
  values.maximum = value.at("all").at("max").get<std::uint64_t>();
  return values;
}

// Of the values that came in between.
Json QuantilesOf(const Json* before, const Json& after) {
  auto values = Read(after);
  if (before != nullptr) {
    const auto old = Read(*before);
    values.count = 0;
    for (std::size_t i = 0; i < values.buckets.size(); ++i) {
      values.buckets[i] -= std::min(values.buckets[i], old.buckets[i]);
      values.count += values.buckets[i];
    }
  }
  return {{"p50", values.Quantile(0.5)}, {"p90", values.Quantile(0.9)}, {"p99", values.Quantile(0.99)}};
}

// before or after is null when there is no such row there.
void AddChanges(Json& changes, const Json& kinds, const Json* before, const Json* after, double seconds) {
  const auto& row = after != nullptr ? *after : *before;
  for (const auto& [field, about] : kinds.at(row.at("kind").get<std::string>()).at("fields").items()) {
    const auto type = about.at("type").get<std::string>();
    const auto* const oldValue = before != nullptr ? &before->at("values").at(field) : nullptr;
    const auto* const newValue = after != nullptr ? &after->at("values").at(field) : nullptr;
    const auto oldNumber = oldValue != nullptr ? NumberOf(type, *oldValue) : Json(0);
    const auto newNumber = newValue != nullptr ? NumberOf(type, *newValue) : Json(0);
    if (oldNumber == newNumber) {
      continue;
    }
    const bool counts = type == "counter" || type == "histogram";
    // Differences of counters are right modulo 2^64, and those of gauges as signed numbers.
    const auto growth = static_cast<std::int64_t>(newNumber.get<std::uint64_t>() - oldNumber.get<std::uint64_t>());
    Json change{{"kind", row.at("kind")}, {"labels", row.at("labels")}, {"field", field},  {"unit", about.at("unit")},
                {"before", oldNumber},    {"after", newNumber},         {"growth", growth}};
    if (before == nullptr || after == nullptr) {
      change["row"] = after == nullptr ? "ended" : "begun";
    } else if (counts && growth > 0 && seconds > 0) {
      change["per_second"] = static_cast<double>(growth) / seconds;
    }
    if (type == "histogram" && newValue != nullptr) {
      change["values"] = QuantilesOf(oldValue, *newValue);
    }
    changes.push_back(std::move(change));
  }
}

Json ProcessDifference(const Json& before, const Json& after, const Selections& selections) {
  const auto taken = [](const Json& process) { return process.at("taken_monotonic_ns").get<double>(); };
  const auto seconds = (taken(after) - taken(before)) / 1e9;
  auto changes = Json::array();
  const auto rowsBefore = RowsOf(before, selections);
  std::map<RowKey, const Json*> oldRows(rowsBefore.begin(), rowsBefore.end());
  for (const auto& [key, row] : RowsOf(after, selections)) {
    const auto old = oldRows.extract(key);
    AddChanges(changes, after.at("kinds"), old ? old.mapped() : nullptr, row, seconds);
  }
  for (const auto& [key, row] : oldRows) {
    AddChanges(changes, before.at("kinds"), row, nullptr, seconds);
  }
  return {{"program", after.at("program")},
          {"process", after.at("process")},
          {"seconds", seconds},
          {"changes", std::move(changes)}};
}

Json Name(const Json& process) { return {{"program", process.at("program")}, {"process", process.at("process")}}; }

}  // namespace

Json Difference(const Json& before, const Json& after) {
  Json difference{{"processes", Json::array()}, {"only_before", Json::array()}, {"only_after", Json::array()}};
  const Selections selections{SelectionOf(before), SelectionOf(after)};
  auto old = ProcessesOf(before);
  for (const auto& [key, process] : ProcessesOf(after)) {
    if (const auto same = old.extract(key)) {
      difference["processes"].push_back(ProcessDifference(*same.mapped(), *process, selections));
    } else {
      difference["only_after"].push_back(Name(*process));
    }
  }
  for (const auto& [key, process] : old) {
    difference["only_before"].push_back(Name(*process));
  }
  return difference;
}

}  // namespace price_stat
