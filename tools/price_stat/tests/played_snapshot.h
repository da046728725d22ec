// Snapshots of processes that there are not.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "processes.h"

namespace price_stat {

inline const Kind& ContextKind() {
  static const Kind kind{
      "context", "A context.", {"context", "handle"}, {{"loops", FieldType::kCounter, "", "Loops."}}};
  return kind;
}

inline const Kind& ReceiverKind() {
  static const Kind kind{
      "receiver",
      "A receiver.",
      {"context", "handle", "topic"},
      {{"messages", FieldType::kCounter, "", "Messages."}, {"lost_messages", FieldType::kCounter, "", "Lost."}}};
  return kind;
}

inline const Kind& EngineKind() {
  static const Kind kind{"engine_context",
                         "The engine's part.",
                         {"context", "handle"},
                         {{"latency", FieldType::kHistogram, "nanoseconds", "Latency."}}};
  return kind;
}

constexpr std::uint64_t kSecond = 1'000'000'000;

// A process that has been looked at so many seconds after the machine's start.
class PlayedLook {
 public:
  explicit PlayedLook(double seconds, pid_t number = 4242) {
    m_process.path = "/pages/played." + std::to_string(number) + ".page";
    auto& snapshot = m_process.snapshot.emplace();
    snapshot.process = number;
    snapshot.program = "played";
    snapshot.startMonotonic = kSecond;
    snapshot.takenMonotonic = static_cast<std::uint64_t>(seconds * 1e9);
  }

  PlayedLook& Row(const Kind& kind, std::uint64_t id, std::vector<std::string> labels,
                  const std::vector<std::int64_t>& numbers) {
    auto& snapshot = *m_process.snapshot;
    snapshot.kinds.push_back(std::make_unique<const Kind>(kind));
    auto& row = snapshot.rows.emplace_back();
    row.kind = snapshot.kinds.back().get();
    row.id = id;
    row.labels = std::move(labels);
    for (const auto number : numbers) {
      row.values.emplace_back().number = number;
    }
    return *this;
  }

  // A histogram that holds one value a number of times.
  PlayedLook& Latencies(std::uint64_t id, std::uint64_t value, std::uint64_t count) {
    Row(EngineKind(), id, {"a", "0x1"}, {static_cast<std::int64_t>(count)});
    auto& latency = m_process.snapshot->rows.back().values.front();
    Distribution values{.count = count, .sum = count * value, .maximum = value};
    values.buckets[zq::statistics::BucketOf(value)] = count;
    latency.all = latency.last10s = latency.last60s = values;
    return *this;
  }

  PlayedLook& Context(std::uint64_t loops) {
    m_process.contexts.push_back({.name = "a", .handle = "0x1", .loops = loops});
    return *this;
  }

  PlayedLook& Is(State state) {
    m_process.state = state;
    return *this;
  }

  std::vector<Process> Take() {
    std::vector<Process> look;
    look.push_back(std::move(m_process));
    return look;
  }

 private:
  Process m_process;
};

}  // namespace price_stat
