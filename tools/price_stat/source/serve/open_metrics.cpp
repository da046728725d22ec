#include "serve/open_metrics.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <map>
#include <set>
#include <string_view>
#include <utility>

#include "cli/one_line.h"

namespace price_stat {

namespace {

constexpr double kNanosecondsPerSecond = 1e9;
constexpr std::string_view kPrefix = "price_connector_";

// A gauge with this ending holds a moment on the clock of Now(), or 0. It is told as the time that has passed since.
constexpr std::string_view kSince = "_since";

// What a histogram's buckets are put together to: the ends of octaves. Of durations from 128 ns to 17 s.
constexpr std::size_t kFirstOctaveOfDurations = 7;
constexpr std::size_t kLastOctaveOfDurations = 34;
constexpr std::size_t kOctaveStepOfNumbers = 2;

// Labels of ours, and endings that make samples of one metric look like those of another.
constexpr std::array<std::string_view, 4> kOurLabels{"pid", "program", "row", "le"};
constexpr std::array<std::string_view, 6> kEndingsOfSamples{"_total", "_count", "_sum", "_bucket", "_info", "_created"};

bool IsName(std::string_view text) {
  const auto fits = [](unsigned char c) { return std::islower(c) != 0 || std::isdigit(c) != 0 || c == '_'; };
  return !text.empty() && std::islower(static_cast<unsigned char>(text[0])) != 0 &&
         std::all_of(text.begin(), text.end(), fits);
}

bool IsNameOfField(std::string_view text) {
  return IsName(text) && std::none_of(kEndingsOfSamples.begin(), kEndingsOfSamples.end(),
                                      [&](std::string_view ending) { return text.ends_with(ending); });
}

// Escapes what may not stand in a quoted text.
std::string Quoted(std::string_view text) {
  std::string quoted;
  for (const char c : cli::OneLine(text)) {
    if (c == '"' || c == '\\') {
      quoted.push_back('\\');
    }
    quoted.push_back(c);
  }
  return quoted;
}

// The two formats escape quotes differently there, so there are none.
std::string HelpText(std::string_view text) {
  std::string help = cli::OneLine(text);
  std::replace(help.begin(), help.end(), '"', '\'');
  std::replace(help.begin(), help.end(), '\\', '/');
  return help;
}

std::string LabelPair(std::string_view name, std::string_view value) {
  return fmt::format("{}=\"{}\"", name, Quoted(value));
}

// The metrics so far, each with its samples together, as the formats want it.
class Families {
 public:
  // owner: the kind and field that the metric is made of; empty for those of price_stat itself. Null when there is a
  // metric of this name that is made of something else.
  std::string* SamplesOf(const std::string& name, std::string_view owner, std::string_view type, std::string_view unit,
                         std::string_view help) {
    const auto [found, made] = m_families.try_emplace(name);
    Family& family = found->second;
    if (made) {
      family.owner = owner;
      family.type = type;
      family.unit = unit;
      family.help = HelpText(help);
    }
    return family.owner == owner && family.type == type && family.unit == unit ? &family.samples : nullptr;
  }

  // One of price_stat itself.
  void AddGauge(std::string_view name, std::string_view unit, std::string_view help, std::string_view labels,
                double value) {
    const std::string full = std::string(kPrefix).append(name);
    fmt::format_to(std::back_inserter(*SamplesOf(full, "", "gauge", unit, help)), "{}{{{}}} {}\n", full, labels, value);
  }

  std::string Text(MetricsFormat format) const {
    const bool open = format == MetricsFormat::kOpenMetrics;
    std::string text;
    for (const auto& [name, family] : m_families) {
      if (family.samples.empty()) {
        continue;
      }
      // The older format knows no units and no "info", and calls a metric by its samples' whole name.
      const std::string_view suffix = open                       ? ""
                                      : family.type == "counter" ? "_total"
                                      : family.type == "info"    ? "_info"
                                                                 : "";
      const std::string_view type = !open && family.type == "info" ? "gauge" : std::string_view(family.type);
      fmt::format_to(std::back_inserter(text), "# HELP {0}{1} {2}\n# TYPE {0}{1} {3}\n", name, suffix, family.help,
                     type);
      if (open && !family.unit.empty()) {
        fmt::format_to(std::back_inserter(text), "# UNIT {} {}\n", name, family.unit);
      }
      text += family.samples;
    }
    return open ? text += "# EOF\n" : text;
  }

 private:
  struct Family {
    std::string owner;
    std::string type;
    std::string unit;
    std::string help;
    std::string samples;
  };
  std::map<std::string, Family> m_families;
};

// What a field becomes in the monitoring system, which counts in base units.
struct Metric {
  std::string name;
  std::string owner;
  std::string unit;
  bool inNanoseconds = false;

  Metric(const Kind& kind, const Field& field) : Metric(kind, field, field.name) {}
  // With a name that is not quite the field's.
  Metric(const Kind& kind, const Field& field, std::string_view fieldName)
      : name(fmt::format("{}{}_{}", kPrefix, kind.name, fieldName)),
        owner(fmt::format("{} {}", kind.name, field.name)),
        unit(field.unit),
        inNanoseconds(unit == "nanoseconds") {
    if (inNanoseconds) {
      unit = "seconds";
    }
    if (!unit.empty() && !name.ends_with("_" + unit)) {
      name += "_" + unit;
    }
  }

  template <class Number>
  std::string Scaled(Number value) const {
    return inNanoseconds ? fmt::format("{}", static_cast<double>(value) / kNanosecondsPerSecond)
                         : fmt::format("{}", value);
  }
};

// Turns the rows of one process into samples.
class Exposition {
 public:
  Exposition(Families& families, const Snapshot& snapshot, std::string labels)
      : m_families(families), m_snapshot(snapshot), m_processLabels(std::move(labels)) {
    for (const RowValues& row : snapshot.rows) {
      const std::string_view handle = row.Label("handle");
      if (!handle.empty()) {
        m_handles[row.Label("context")].insert(handle);
      }
    }
  }

  // Returns how many fields had to be left out.
  std::size_t AddRows() {
    for (const auto& kind : m_snapshot.kinds) {
      if (!CanBeShown(*kind)) {
        m_leftOut += kind->fields.size();
        continue;
      }
      // Options are texts, and so many that a monitoring system had better not keep them.
      if (kind->name != "option") {
        AddKind(*kind);
      }
    }
    return m_leftOut;
  }

 private:
  static bool CanBeShown(const Kind& kind) {
    std::set<std::string_view> labels(kOurLabels.begin(), kOurLabels.end());
    std::set<std::string_view> fields;
    return IsName(kind.name) &&
           std::all_of(kind.labels.begin(), kind.labels.end(),
                       [&](const std::string& label) { return IsName(label) && labels.insert(label).second; }) &&
           std::all_of(kind.fields.begin(), kind.fields.end(),
                       [&](const Field& field) { return fields.insert(field.name).second; });
  }

  void AddKind(const Kind& kind) {
    std::vector<const RowValues*> rows;
    std::map<std::string, std::size_t> uses;
    for (const RowValues& row : m_snapshot.rows) {
      if (row.kind == &kind && (!IsOther(row) || m_snapshot.rowsInOther != 0)) {
        rows.push_back(&row);
        ++uses[LabelsOf(row)];
      }
    }
    for (const RowValues* const row : rows) {
      std::string labels = LabelsOf(*row);
      if (uses[labels] > 1) {
        labels.append(1, ',').append(LabelPair("row", std::to_string(row->id)));
      }
      AddRow(*row, labels);
    }
  }

  void AddRow(const RowValues& row, std::string_view labels) {
    if (row.kind->fields.empty()) {
      const std::string name = fmt::format("{}{}", kPrefix, row.kind->name);
      if (std::string* const samples = m_families.SamplesOf(name, row.kind->name, "info", "", row.kind->help)) {
        fmt::format_to(std::back_inserter(*samples), "{}_info{{{}}} 1\n", name, labels);
      }
      return;
    }
    for (std::size_t i = 0; i < row.kind->fields.size(); ++i) {
      const Field& field = row.kind->fields[i];
      // Nobody sets gauges of the row "other", nor do the larger fields reach it: what is there means nothing.
      if (field.type != FieldType::kCounter && IsOther(row)) {
        continue;
      }
      if (!IsNameOfField(field.name) || (!field.unit.empty() && !IsName(field.unit)) ||
          !AddField(*row.kind, field, row.values[i], labels)) {
        ++m_leftOut;
      }
    }
  }

  bool AddField(const Kind& kind, const Field& field, const Value& value, std::string_view labels) {
    switch (field.type) {
      case FieldType::kCounter: {
        const Metric metric(kind, field);
        std::string* const samples =
            m_families.SamplesOf(metric.name, metric.owner, "counter", metric.unit, field.help);
        if (samples != nullptr) {
          fmt::format_to(std::back_inserter(*samples), "{}_total{{{}}} {}\n", metric.name, labels,
                         metric.Scaled(value.Count()));
        }
        return samples != nullptr;
      }
      case FieldType::kGauge: {
        if (field.name.ends_with(kSince) && field.unit == "nanoseconds") {
          const std::string name = field.name.substr(0, field.name.size() - kSince.size());
          const auto now = m_snapshot.takenMonotonic;
          const bool began = value.number != 0 && value.Count() < now;
          return AddSample(Metric(kind, field, name), field.help, labels, began ? now - value.Count() : 0);
        }
        return AddSample(Metric(kind, field), field.help, labels, value.number);
      }
      case FieldType::kRecentMaximum:
        return AddSample(Metric(kind, field), field.help, labels, value.Count()) &&
               AddSample(Metric(kind, field, field.name + "_recent"), field.help + " Of the last 10 s.", labels,
                         value.recentMaximum);
      case FieldType::kHistogram:
        return AddHistogram(Metric(kind, field), field.help, labels, *value.all);
    }
    return false;
  }

  template <class Number>
  bool AddSample(const Metric& metric, std::string_view help, std::string_view labels, Number value) {
    std::string* const samples = m_families.SamplesOf(metric.name, metric.owner, "gauge", metric.unit, help);
    if (samples != nullptr) {
      fmt::format_to(std::back_inserter(*samples), "{}{{{}}} {}\n", metric.name, labels, metric.Scaled(value));
    }
    return samples != nullptr;
  }

  bool AddHistogram(const Metric& metric, std::string_view help, std::string_view labels,
                    const Distribution& distribution) {
    std::string* const samples = m_families.SamplesOf(metric.name, metric.owner, "histogram", metric.unit, help);
    if (samples == nullptr) {
      return false;
    }
    const bool durations = metric.unit == "seconds";
    const std::size_t step = durations ? 1 : kOctaveStepOfNumbers;
    auto end = std::back_inserter(*samples);
    std::size_t bucket = 0;
    std::uint64_t below = 0;
    for (std::size_t octave = durations ? kFirstOctaveOfDurations : 2; octave <= kLastOctaveOfDurations;
         octave += step) {
      const std::uint64_t bound = (std::uint64_t{1} << octave) - 1;  // the largest value below the octave
      while (bucket <= zq::statistics::BucketOf(bound)) {
        below += distribution.buckets[bucket++];
      }
      fmt::format_to(end, "{}_bucket{{{},le=\"{}\"}} {}\n", metric.name, labels,
                     metric.unit.empty() ? fmt::format("{}.0", bound) : metric.Scaled(bound), below);
    }
    while (bucket < distribution.buckets.size()) {
      below += distribution.buckets[bucket++];
    }
    // The count is that of the buckets: the writer's own may be ahead of them.
    fmt::format_to(end, "{0}_bucket{{{1},le=\"+Inf\"}} {2}\n{0}_count{{{1}}} {2}\n{0}_sum{{{1}}} {3}\n", metric.name,
                   labels, below, metric.Scaled(distribution.sum));
    return true;
  }

  // Contexts are told apart by their handles only where their names do not do it: a handle is another one at each
  // start.
  std::string LabelsOf(const RowValues& row) const {
    std::string labels = m_processLabels;
    for (std::size_t i = 0; i < row.labels.size(); ++i) {
      const std::string& name = row.kind->labels[i];
      if (name == "handle") {
        const auto handles = m_handles.find(row.Label("context"));
        if (handles == m_handles.end() || handles->second.size() < 2) {
          continue;
        }
      }
      labels.append(1, ',').append(LabelPair(name, row.labels[i]));
    }
    return labels;
  }

  Families& m_families;
  const Snapshot& m_snapshot;
  const std::string m_processLabels;
  std::map<std::string_view, std::set<std::string_view>> m_handles;  // of each context name
  std::size_t m_leftOut = 0;
};

constexpr std::array kStates{State::kRunning, State::kInCallback, State::kNotLooping,
                             State::kStopped, State::kEnded,      State::kUnreadable};

void AddProcess(Families& families, const Process& process, const std::string& labels) {
  const Snapshot& snapshot = *process.snapshot;
  families.AddGauge("process_start_time_seconds", "seconds", "When the process began to count, since 1970.", labels,
                    static_cast<double>(snapshot.startRealtime) / kNanosecondsPerSecond);
  families.AddGauge("process_stopped", "", "1 while a signal or a debugger has stopped the process.", labels,
                    process.state == State::kStopped ? 1 : 0);
  families.AddGauge("process_rows_in_other", "", "Rows for which the page had no room, counted together.", labels,
                    static_cast<double>(snapshot.rowsInOther));
  families.AddGauge("process_page_bytes", "bytes", "Of the page that are in use.", labels,
                    static_cast<double>(snapshot.bytes));
}

}  // namespace

std::string Metrics(const std::vector<Process>& processes, MetricsFormat format) {
  Families families;
  // Ours come first: nothing on a page can take their places.
  std::map<State, std::size_t> inState;
  for (const Process& process : processes) {
    ++inState[process.state];
  }
  for (const State state : kStates) {
    families.AddGauge("pages", "", "Pages of processes, by what state those are in.", LabelPair("state", NameOf(state)),
                      static_cast<double>(inState[state]));
  }
  const std::string leftOutName = std::string(kPrefix) + "fields_left_out";
  std::string& leftOutSample = *families.SamplesOf(
      leftOutName, "", "gauge", "", "Fields that cannot be shown: their names are wrong or contradict one another.");
  std::size_t leftOut = 0;
  std::map<std::string, const Process*> living;
  for (const Process& process : processes) {
    if (!process.IsAlive()) {
      continue;
    }
    const std::string labels = LabelPair("pid", std::to_string(process.snapshot->process)) + "," +
                               LabelPair("program", process.snapshot->program);
    // A page that says that it is of the same process as another one has been tampered with.
    if (living.emplace(labels, &process).second) {
      AddProcess(families, process, labels);
    } else {
      ++leftOut;
    }
  }
  for (const auto& [labels, process] : living) {
    leftOut += Exposition(families, *process->snapshot, labels).AddRows();
  }
  leftOutSample = fmt::format("{} {}\n", leftOutName, leftOut);
  return families.Text(format);
}

}  // namespace price_stat
