#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <set>

#include "call.h"
#include "cli/command_line.h"
#include "cli/format.h"
#include "cli/one_line.h"
#include "cli/table.h"
#include "json.h"
#include "looks.h"
#include "selection.h"
#include "texts.h"

namespace price_stat {
namespace {

struct ShowOptions {
  Selection selection;
  std::chrono::duration<double> interval{0};

  bool WithRates() const noexcept { return interval.count() > 0; }
};

bool IsZero(const Value& value) { return value.number == 0; }

// The rows of one kind of one process.
class KindView {
 public:
  KindView(const Kind& kind, const Process& process, const Progress& progress, const ShowOptions& options)
      : m_kind(kind), m_process(process), m_progress(progress), m_withRates(options.WithRates()) {
    for (const auto* const row : process.snapshot->Of(kind.name)) {
      const bool isEmptyOther = IsOther(*row) && std::all_of(row->values.begin(), row->values.end(), IsZero);
      if (options.selection.Takes(*row) && !isEmptyOther) {
        m_rows.push_back(row);
      }
    }
  }

  std::string Text() const {
    if (m_rows.empty()) {
      return {};
    }
    return '\n' + cli::OneLine(m_kind.name) + '\n' + NumbersText() + HistogramsText() + ZerosText();
  }

 private:
  // Names of contexts tell them apart more readably than handles, unless two have the same.
  std::vector<std::size_t> LabelsShown() const {
    std::set<std::string_view> names;
    for (const auto& context : m_process.contexts) {
      names.insert(context.name);
    }
    const bool isClear = names.size() == m_process.contexts.size() && !names.contains("");
    std::vector<std::size_t> labels;
    for (std::size_t i = 0; i < m_kind.labels.size(); ++i) {
      if (m_kind.labels[i] != "handle" || !isClear) {
        labels.push_back(i);
      }
    }
    return labels;
  }

  static cli::Table::Row LabelCells(const RowValues& row, const std::vector<std::size_t>& labels) {
    cli::Table::Row cells;
    for (const auto label : labels) {
      cells.push_back(row.labels[label].empty() ? "-" : cli::OneLine(row.labels[label]));
    }
    return cells;
  }

  cli::Table::Row LabelHeads(const std::vector<std::size_t>& labels) const {
    cli::Table::Row cells;
    for (const auto label : labels) {
      cells.push_back(cli::OneLine(m_kind.labels[label]));
    }
    return cells;
  }

  bool IsZeroEverywhere(std::size_t field) const {
    return std::all_of(m_rows.begin(), m_rows.end(), [field](const auto* row) { return IsZero(row->values[field]); });
  }

  bool IsCounterWithRate(std::size_t field) const {
    return m_withRates && m_kind.fields[field].type == FieldType::kCounter;
  }

  void AddHeads(cli::Table::Row& cells, std::size_t index) const {
    const auto& field = m_kind.fields[index];
    auto name = cli::OneLine(field.name);
    std::replace(name.begin(), name.end(), '_', ' ');
    if (field.type == FieldType::kRecentMaximum) {
      cells.push_back(name + " 10 s");
    }
    cells.push_back(name);
    if (IsCounterWithRate(index)) {
      cells.emplace_back("now");
    }
  }

  void AddCells(cli::Table::Row& cells, const RowValues& row, std::size_t index) const {
    const auto& field = m_kind.fields[index];
    const auto& value = row.values[index];
    if (field.type == FieldType::kRecentMaximum) {
      cells.push_back(NumberText(field, static_cast<std::int64_t>(value.recentMaximum)));
    }
    // A moment, and of interest is how long ago it was.
    const bool isSince = field.name == "busy_since" && value.number > 0;
    const auto taken = static_cast<std::int64_t>(m_process.snapshot->takenMonotonic);
    if (field.name == "thread") {
      cells.push_back(std::to_string(value.number));  // a name rather than an amount
    } else {
      cells.push_back(NumberText(field, isSince ? std::max<std::int64_t>(taken - value.number, 0) : value.number));
    }
    if (IsCounterWithRate(index)) {
      const auto rate = m_progress.RateOf(row, index);
      cells.push_back(rate ? RateText(field, *rate) : "-");
    }
  }

  std::string NumbersText() const {
    const auto labels = LabelsShown();
    cli::Table table(labels.size());
    std::vector<std::size_t> fields;
    auto heads = LabelHeads(labels);
    for (std::size_t i = 0; i < m_kind.fields.size(); ++i) {
      if (m_kind.fields[i].type != FieldType::kHistogram && !IsZeroEverywhere(i)) {
        fields.push_back(i);
        AddHeads(heads, i);
      }
    }
    table.Add(std::move(heads));
    for (const auto* const row : m_rows) {
      auto cells = LabelCells(*row, labels);
      for (const auto field : fields) {
        AddCells(cells, *row, field);
      }
      table.Add(std::move(cells));
    }
    return table.ToString();
  }

  std::string HistogramsText() const {
    std::string text;
    for (std::size_t i = 0; i < m_kind.fields.size(); ++i) {
      if (m_kind.fields[i].type == FieldType::kHistogram && !IsZeroEverywhere(i)) {
        text += HistogramText(i);
      }
    }
    return text;
  }

  std::string HistogramText(std::size_t index) const {
    const auto& field = m_kind.fields[index];
    auto labels = LabelsShown();
    cli::Table table(labels.size() + 1);
    auto heads = LabelHeads(labels);
    heads.insert(heads.end(), {cli::OneLine(field.name), "count", "p50", "p90", "p99", "p99.9", "max"});
    table.Add(std::move(heads));
    for (const auto* const row : m_rows) {
      const auto& value = row->values[index];
      const auto add = [&](const char* window, const Distribution& values) {
        auto cells = LabelCells(*row, labels);
        cells.insert(cells.end(), {window, cli::FormatCount(values.count)});
        for (const double share : {0.5, 0.9, 0.99, 0.999, 1.0}) {
          cells.push_back(values.count > 0 ? NumberText(field, static_cast<std::int64_t>(values.Quantile(share)))
                                           : "-");
        }
        table.Add(std::move(cells));
      };
      add("last 10 s", *value.last10s);
      add("last 1 min", *value.last60s);
      add("all", *value.all);
    }
    return table.ToString();
  }

  // What has no column.
  std::string ZerosText() const {
    std::string text;
    for (std::size_t i = 0; i < m_kind.fields.size(); ++i) {
      if (IsZeroEverywhere(i)) {
        text += (text.empty() ? "0 everywhere: " : ", ") + cli::OneLine(m_kind.fields[i].name);
      }
    }
    return text.empty() ? text : text + '\n';
  }

  const Kind& m_kind;
  const Process& m_process;
  const Progress& m_progress;
  bool m_withRates;
  std::vector<const RowValues*> m_rows;
};

std::string HeadText(const Process& process) {
  auto text = fmt::format("{}  {}", ProcessName(process), StateText(process.state, process.hangNanoseconds));
  if (!process.snapshot) {
    return text + ": " + cli::OneLine(process.fault) + '\n';
  }
  const auto& snapshot = *process.snapshot;
  text += "  up " + cli::FormatDuration(process.UptimeSeconds());
  for (const auto* const row : snapshot.Of("process")) {
    if (!IsOther(*row)) {
      for (const auto& label : row->labels) {
        text += "  " + cli::OneLine(label);
      }
    }
  }
  text += fmt::format("  page {} bytes\n", cli::FormatCount(snapshot.bytes));
  if (snapshot.rowsInOther > 0) {
    text += fmt::format("{} rows had no room in the page: \"other\" counts for them\n",
                        cli::FormatCount(snapshot.rowsInOther));
  }
  return text;
}

std::string ShowText(const Process& process, const Progress& progress, const ShowOptions& options) {
  auto text = HeadText(process);
  if (process.snapshot) {
    for (const auto& kind : process.snapshot->kinds) {
      // The process is in the head, and options are many.
      const bool isTooMuch = options.selection.kinds.empty() && (kind->name == "option" || kind->name == "process");
      if (!isTooMuch) {
        text += KindView(*kind, process, progress, options).Text();
      }
    }
  }
  return text;
}

cli::ExitCode Show(const Call& call, const ShowOptions& options, const std::vector<std::string>& names,
                   const cli::Output& output) {
  cli::SignalWait signals{SIGINT, SIGTERM, SIGHUP};
  Looks looks(call.directory, names);
  std::vector<Process> before;
  if (options.WithRates()) {
    before = looks.Take();
    if (cli::AsksToStop(signals.WaitUntil(cli::SignalWait::Clock::now() +
                                          std::chrono::duration_cast<std::chrono::nanoseconds>(options.interval)))) {
      return cli::ExitCode::kOk;
    }
  }
  const auto processes = looks.Take();
  auto all = nlohmann::ordered_json::array();
  std::string text;
  for (const auto& process : processes) {
    const Progress progress(FindSame(process, before), process);
    if (call.json) {
      all.push_back(FullJson(process, options.selection, options.WithRates() ? &progress : nullptr));
    } else {
      text += (text.empty() ? "" : "\n") + ShowText(process, progress, options);
    }
  }
  output.Write(call.json ? ToText({{"directory", call.directory},
                                   {"selection", SelectionJson(options.selection)},
                                   {"processes", std::move(all)}})
                         : text);
  if (processes.empty()) {
    ComplainOfNothing(call.directory, processes);
    return cli::ExitCode::kUnsatisfied;
  }
  return cli::ExitCode::kOk;
}

}  // namespace

void AddShow(CLI::App& app, Call& call) {
  auto* const command = app.add_subcommand("show", "All numbers of processes, but for options");
  AddJsonOption(*command, call);
  const auto names = AddNames(*command);
  const auto options = std::make_shared<ShowOptions>();
  command->add_option("--kind", options->selection.kinds, "Only rows of this kind, such as receiver; may be repeated")
      ->type_name("KIND")
      ->allow_extra_args(false);
  command->add_option("--context", options->selection.contexts, "Only rows of this context; may be repeated")
      ->type_name("CONTEXT")
      ->allow_extra_args(false);
  cli::AddSecondsOption(*command, "--interval", options->interval,
                        "Look twice, so many seconds apart, and add what counters grew by in a second");
  command->callback([&call, names, options] {
    call.run = [&call, names, options](const cli::Output& output) { return Show(call, *options, *names, output); };
  });
}

}  // namespace price_stat
