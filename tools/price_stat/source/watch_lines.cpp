#include "watch_lines.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <tuple>
#include <utility>

#include "cli/format.h"
#include "looks.h"
#include "texts.h"

namespace price_stat {
namespace {

constexpr Metric kReceived{"msg/s", "receiver", "messages", Measure::kRate, 6};
constexpr Metric kReceivedBytes{"B/s", "receiver", "bytes", Measure::kRate, 5};
constexpr Metric kLost{"lost", "receiver", "lost_messages", Measure::kHarm, 5};
constexpr Metric kFailedCallbacks{"failed", "receiver", "failures", Measure::kHarm, 6};
// A send that is not to block and fails would, as a rule, have blocked.
constexpr Metric kBlocked{"blocked", "source", "nonblocking_failures", Measure::kHarm, 7};

constexpr std::array kContextMetrics{
    kReceived,
    kLost,
    Metric{"longest", "context", "longest_callback", Measure::kRecent, 7},
    Metric{"busy", "context", "callback_time", Measure::kShare, 4},
    kBlocked,
    Metric{"dropped", "engine_context", "dropped", Measure::kHarm, 7},
    Metric{"sent/s", "source", "messages", Measure::kRate, 6},
    Metric{"p99", "engine_context", "latency", Measure::kP99, 7},
    kReceivedBytes,
    Metric{"waits", "engine_context", "waits_for_room", Measure::kHarm, 5},
    kFailedCallbacks,
    Metric{"loops/s", "context", "loops", Measure::kRate, 7},
};
constexpr std::array kReceiverMetrics{
    kReceived,
    kLost,
    Metric{"messages", "receiver", "messages", Measure::kTotal, 8},
    kFailedCallbacks,
    kReceivedBytes,
    Metric{"losses", "receiver", "losses", Measure::kHarm, 6},
    Metric{"begun", "receiver", "sessions_begun", Measure::kTotal, 5},
    Metric{"ended", "receiver", "sessions_ended", Measure::kTotal, 5},
};
constexpr std::array kSourceMetrics{
    Metric{"msg/s", "source", "messages", Measure::kRate, 6},
    kBlocked,
    Metric{"readers", "source", "receivers", Measure::kTotal, 7},
    Metric{"failed", "source", "failures", Measure::kHarm, 6},
    Metric{"messages", "source", "messages", Measure::kTotal, 8},
    Metric{"B/s", "source", "bytes", Measure::kRate, 5},
    Metric{"requests", "source", "requests", Measure::kTotal, 8},
};
constexpr std::array kPeerMetrics{
    Metric{"msg/s", "peer", "messages", Measure::kRate, 6},
    Metric{"dropped", "peer", "dropped", Measure::kHarm, 7},
    Metric{"waits", "peer", "waits_for_room", Measure::kHarm, 5},
    Metric{"high", "peer", "ring_high_water", Measure::kTotal, 5},
    Metric{"ring", "peer", "ring_bytes", Measure::kTotal, 5},
    Metric{"B/s", "peer", "bytes", Measure::kRate, 5},
    Metric{"wakes/s", "peer", "wakeups", Measure::kRate, 7},
};
constexpr std::array kViews{
    View{'c', "contexts", "context", true, kContextMetrics},
    View{'r', "receivers", "topic", false, kReceiverMetrics},
    View{'o', "sources", "topic", false, kSourceMetrics},
    View{'e', "peers", "peer", false, kPeerMetrics},
};

// What a row adds to a cell; nothing when it is not known.
std::optional<double> ValueOf(const RowValues& row, std::size_t field, Measure measure, const Progress& progress) {
  const auto& value = row.values[field];
  switch (measure) {
    case Measure::kTotal:
    case Measure::kHarm:
      return row.kind->fields[field].type == FieldType::kCounter ? static_cast<double>(value.Count())
                                                                 : static_cast<double>(value.number);
    case Measure::kRate:
      return progress.RateOf(row, field);
    case Measure::kShare: {
      const auto rate = progress.RateOf(row, field);
      return rate ? std::optional(*rate / 1e9) : std::nullopt;
    }
    case Measure::kRecent:
      return static_cast<double>(value.recentMaximum);
    case Measure::kP99:
      return value.last10s && value.last10s->count > 0
                 ? std::optional(static_cast<double>(value.last10s->Quantile(0.99)))
                 : std::nullopt;
  }
  return std::nullopt;
}

void Add(Cell& cell, const Metric& metric, const RowValues& row, const Progress& progress) {
  const auto& fields = row.kind->fields;
  const auto found =
      std::find_if(fields.begin(), fields.end(), [&](const auto& one) { return one.name == metric.field; });
  if (found == fields.end()) {
    return;
  }
  const auto field = static_cast<std::size_t>(found - fields.begin());
  if (const auto value = ValueOf(row, field, metric.measure, progress)) {
    const bool isSum = metric.measure != Measure::kRecent && metric.measure != Measure::kP99;
    cell.value = isSum ? cell.value.value_or(0) + *value : std::max(cell.value.value_or(0), *value);
  }
  cell.grows = cell.grows || progress.RateOf(row, field).value_or(0) > 0;
}

// The lines of one process.
class Collector {
 public:
  Collector(const View& view, const Process& process, const Process* before)
      : m_view(view), m_process(process), m_progress(before, process) {}

  std::vector<Line> Take() {
    if (!m_process.snapshot) {
      return {Line{.process = &m_process, .state = m_process.state, .cells = std::vector<Cell>(m_view.metrics.size())}};
    }
    if (m_view.byContext) {
      for (const auto& context : m_process.contexts) {
        LineOf({context.name, context.handle, ContextName(context.name, context.handle)});
      }
    }
    for (const auto& row : m_process.snapshot->rows) {
      if (!IsOther(row)) {
        AddRow(row);
      }
    }
    return std::move(m_lines);
  }

 private:
  using Key = std::tuple<std::string_view, std::string, std::string>;  // context, handle, name

  Line& LineOf(const Key& key) {
    const auto [found, isNew] = m_byKey.try_emplace({std::get<1>(key), std::get<2>(key)}, m_lines.size());
    if (isNew) {
      auto& line = m_lines.emplace_back(Line{.process = &m_process,
                                             .name = std::get<2>(key),
                                             .context = std::string(std::get<0>(key)),
                                             .handle = std::get<1>(key),
                                             .state = m_process.state,
                                             .cells = std::vector<Cell>(m_view.metrics.size())});
      for (const auto& context : m_process.contexts) {
        if (context.handle == line.handle) {
          line.state = context.state;
          line.hangNanoseconds = context.hangNanoseconds;
        }
      }
    }
    return m_lines[found->second];
  }

  void AddRow(const RowValues& row) {
    Line* line = nullptr;
    for (std::size_t i = 0; i < m_view.metrics.size(); ++i) {
      const auto& metric = m_view.metrics[i];
      if (row.kind->name != metric.kind) {
        continue;
      }
      if (line == nullptr) {
        const std::string handle(row.Label("handle"));
        line = &LineOf(
            {row.Label("context"), handle,
             m_view.byContext ? ContextName(row.Label("context"), handle) : std::string(row.Label(m_view.nameLabel))});
      }
      Add(line->cells[i], metric, row, m_progress);
    }
  }

  const View& m_view;
  const Process& m_process;
  Progress m_progress;
  std::vector<Line> m_lines;
  std::map<std::pair<std::string, std::string>, std::size_t> m_byKey;
};

unsigned Badness(State state) {
  switch (state) {
    case State::kStopped:
      return 5;
    case State::kInCallback:
      return 4;
    case State::kNotLooping:
      return 3;
    case State::kUnreadable:
      return 2;
    case State::kEnded:
      return 1;
    case State::kRunning:
      return 0;
  }
  return 0;
}

// What hurts now, then what takes long, then what once hurt.
auto Pain(const View& view, const Line& line) {
  unsigned growing = 0;
  double recent = 0;
  double share = 0;
  double total = 0;
  for (std::size_t i = 0; i < line.cells.size(); ++i) {
    const auto& metric = view.metrics[i];
    const auto value = line.cells[i].value.value_or(0);
    growing += metric.Hurts() && line.cells[i].grows ? 1 : 0;
    recent += metric.measure == Measure::kRecent ? value : 0;
    share += metric.measure == Measure::kShare ? value : 0;
    total += metric.Hurts() ? value : 0;
  }
  return std::tuple(Badness(line.state), growing, recent, share, total);
}

}  // namespace

std::span<const View> Views() { return kViews; }

std::string Cell::Text(Measure measure) const {
  if (!value) {
    return "-";
  }
  switch (measure) {
    case Measure::kTotal:
    case Measure::kHarm:
    case Measure::kRate:
      return ShortCount(*value);
    case Measure::kShare:
      return fmt::format("{:.0f}%", *value * 100);
    case Measure::kRecent:
    case Measure::kP99:
      return cli::FormatLatency(static_cast<std::uint64_t>(*value));
  }
  return {};
}

std::string Line::ShortState() const {
  const auto seconds = static_cast<double>(hangNanoseconds) / 1e9;
  switch (state) {
    case State::kRunning:
      return "ok";
    case State::kInCallback:
      return "busy " + ShortCount(std::floor(seconds)) + "s";
    case State::kNotLooping:
      return "hung " + ShortCount(std::floor(seconds)) + "s";
    case State::kUnreadable:
      return "bad page";
    default:
      return std::string(NameOf(state));
  }
}

std::vector<Line> LinesOf(const View& view, Order order, const std::vector<Process>& before,
                          const std::vector<Process>& now) {
  std::vector<Line> lines;
  for (const auto& process : now) {
    for (auto& line : Collector(view, process, FindSame(process, before)).Take()) {
      lines.push_back(std::move(line));
    }
  }
  if (order != Order::kName) {
    std::stable_sort(lines.begin(), lines.end(), [&](const Line& a, const Line& b) {
      return order == Order::kHurts ? Pain(view, a) > Pain(view, b)
                                    : a.cells.front().value.value_or(-1) > b.cells.front().value.value_or(-1);
    });
  }
  return lines;
}

nlohmann::ordered_json LinesJson(const View& view, const std::vector<Line>& lines) {
  using Json = nlohmann::ordered_json;
  constexpr std::array kSuffixes{"", "", "_per_second", "_share", "_last_10s_ns", "_last_10s_p99_ns"};
  auto json = Json::array();
  for (const auto& line : lines) {
    auto values = Json::object();
    for (std::size_t i = 0; i < line.cells.size(); ++i) {
      const auto& metric = view.metrics[i];
      values[fmt::format("{}_{}{}", metric.kind, metric.field, kSuffixes[static_cast<std::size_t>(metric.measure)])] =
          line.cells[i].value ? Json(*line.cells[i].value) : Json(nullptr);
    }
    Json entry{{"program", line.process->Program()},
               {"process", line.process->snapshot ? Json(line.process->snapshot->process) : Json(nullptr)},
               {"context", line.context},
               {"handle", line.handle}};
    if (!view.byContext) {
      entry[view.nameLabel] = line.name;
    }
    entry["state"] = NameOf(line.state);
    entry["hang_ns"] = line.hangNanoseconds;
    entry["values"] = std::move(values);
    json.push_back(std::move(entry));
  }
  return json;
}

}  // namespace price_stat
