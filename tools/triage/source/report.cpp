#include "report.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>
#include <tuple>
#include <vector>

#include "cli/one_line.h"
#include "cli/table.h"
#include "zq/messaging/triage_requests.h"
#include "zq/posix/environment.h"

namespace triage {
namespace {

using zq::messaging::triage::UpperCase;

struct Row {
  ProcessInfo process;
  std::string status;
  bool success = false;
  std::optional<std::chrono::nanoseconds> roundTrip;
};

// By programs and then by processes.
std::vector<Row> RowsOf(const Report& report) {
  const auto& outcome = report.outcome;
  std::vector<Row> rows;
  for (const auto& answer : outcome.answers) {
    rows.push_back({answer.process, answer.status, answer.success, answer.roundTrip});
  }
  const auto add = [&rows](const std::vector<ProcessInfo>& processes, const char* status) {
    for (const auto& process : processes) {
      rows.push_back({process, std::string(status) + (IsStopped(process) ? ", stopped" : ""), false, {}});
    }
  };
  add(outcome.silent, "no answer");
  add(outcome.ended, "ended, no answer");
  add(outcome.unasked, report.options.dryRun ? "would be asked" : "came too late");
  add(outcome.elsewhere, "does not listen");
  const auto key = [](const Row& row) {
    return std::tie(row.process.program, row.process.number, row.process.context);
  };
  std::sort(rows.begin(), rows.end(), [key](const Row& a, const Row& b) { return key(a) < key(b); });
  return rows;
}

std::string OrUnknown(const std::string& text) { return text.empty() ? "?" : cli::OneLine(text); }

std::string NumberOf(const ProcessInfo& process) {
  return process.number != 0 ? std::to_string(process.number) : OrUnknown(process.context);
}

std::string Milliseconds(const std::optional<std::chrono::nanoseconds>& time) {
  return time ? fmt::format("{:.3f} ms", std::chrono::duration<double, std::milli>(*time).count()) : "-";
}

std::string Answers(std::size_t count) { return fmt::format("{} answer{}", count, count == 1 ? "" : "s"); }

std::string Processes(std::size_t count) { return fmt::format("{} process{}", count, count == 1 ? "" : "es"); }

std::string TooLate(std::size_t count) {
  return fmt::format("{} began to listen too late to be asked; ask again", Processes(count));
}

// How many there are of what --expect counts.
std::size_t Found(const Report& report) {
  return report.options.dryRun ? report.outcome.unasked.size() : report.outcome.answers.size();
}

// Who was still to answer when as many as expected had done so is no matter.
bool HasEnough(const Report& report) {
  const auto& expected = report.options.expected;
  return expected ? Found(report) >= *expected : report.outcome.silentCount == 0;
}

// Who did not answer, as far as it is known.
std::string Silent(const Outcome& outcome) {
  std::string text;
  for (const auto* const processes : {&outcome.silent, &outcome.ended}) {
    for (const auto& process : *processes) {
      text += fmt::format("{}{} {}", text.empty() ? "" : ", ", OrUnknown(process.program), NumberOf(process));
    }
  }
  return text.empty() ? "which ones is not known" : text;
}

// Where this tool looked, for comparison with the processes.
std::string OwnPlace(const Report& report) {
  std::string text = "This tool has:\n  topic " + report.question.topic + '\n';
  if (!report.outcome.directory.empty()) {
    text += "  directory " + report.outcome.directory + '\n';
  }
  for (const char* variable :
       {zq::messaging::triage::kEnvironmentVariable, zq::messaging::triage::kDataCenterVariable,
        zq::messaging::triage::kTopicPrefixVariable, "LBM_RUNTIME_DIR", "XDG_RUNTIME_DIR", "LBM_CONFIG_FILE"}) {
    const auto value = zq::posix::Environment(variable);
    text += fmt::format("  {}{}\n", variable, value.empty() ? " not set" : '=' + cli::OneLine(value));
  }
  return text;
}

std::string NobodyListens(const Report& report) {
  return fmt::format(
      "{} in {:.1f} s; as far as is known, nobody listens on {}\n"
      "{}"
      "Look at:\n"
      "  - CHEF_ENVIRONMENT, DATA_CENTER and LBM_TRIAGE_HANDLER_TOPIC_PREFIX of the processes: with these names,\n"
      "    they have to give that topic; a process that lacks one of the first two logs an error and does not listen\n"
      "  - DISABLE_LBM_TRIAGE_HANDLER: where it is set, nobody listens\n"
      "  - the names of their contexts: a process listens only if one of its contexts has no name\n"
      "  - LBM_RUNTIME_DIR or XDG_RUNTIME_DIR, LBM_CONFIG_FILE, and the user: those of the processes and of this tool\n"
      "    have to be equal\n"
      "  - whether they are stopped or hang: then they do not even take notice of this tool",
      report.options.dryRun ? "nobody found" : "nobody answered", report.elapsed.count(), report.question.topic,
      OwnPlace(report));
}

std::string NobodyAnswered(const Report& report) {
  const auto& outcome = report.outcome;
  if (outcome.silentCount > 0) {
    return fmt::format(
        "nobody answered in {:.1f} s; {} got the request on {}: {}\n"
        "Look at:\n"
        "  - whether the thread that serves it is held up: \"lbm_th_evq\" if TRIAGE_HANDLER_USE_EVENT_QUEUE is set,\n"
        "    else the one that processes the events of the context without a name\n"
        "  - their logs, for this request's id or \"Failed responding\"",
        report.elapsed.count(), Processes(outcome.silentCount), report.question.topic, Silent(outcome));
  }
  if (!outcome.unasked.empty()) {
    return fmt::format("nobody answered in {:.1f} s; {}", report.elapsed.count(), TooLate(outcome.unasked.size()));
  }
  return NobodyListens(report);
}

nlohmann::ordered_json TextOrNull(const std::string& text) {
  return text.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(text);
}

}  // namespace

std::string Table(const Report& report) {
  const auto& outcome = report.outcome;
  std::string text;
  if (const auto rows = RowsOf(report); !rows.empty()) {
    cli::Table table(3);
    table.Add({"program", "process", "status", "round trip"});
    for (const auto& row : rows) {
      table.Add({OrUnknown(row.process.program), NumberOf(row.process), row.status, Milliseconds(row.roundTrip)});
    }
    text += table.ToString();
  }
  const auto topic = cli::OneLine(report.question.topic);
  if (report.options.dryRun) {
    return text + fmt::format("{} would be asked on {}; nothing was sent\n", Processes(outcome.unasked.size()), topic);
  }
  text += fmt::format("{} to {} on {} in {:.1f} s\n", Answers(outcome.answers.size()),
                      cli::OneLine(report.question.requestId), topic, report.elapsed.count());
  if (report.options.nakKill && !outcome.answers.empty()) {
    text += "success means that the request was understood; what became of the NAKs is in the processes' logs\n";
  }
  if (!outcome.unasked.empty() && !(report.options.expected && HasEnough(report))) {
    text += TooLate(outcome.unasked.size()) + '\n';
  }
  return text;
}

std::string Json(const Report& report) {
  auto processes = nlohmann::ordered_json::array();
  for (const auto& row : RowsOf(report)) {
    processes.push_back({{"program", TextOrNull(row.process.program)},
                         {"process", row.process.number != 0 ? nlohmann::ordered_json(row.process.number) : nullptr},
                         {"context", TextOrNull(row.process.context)},
                         {"status", row.status},
                         {"success", row.success},
                         {"round_trip_ns", row.roundTrip ? nlohmann::ordered_json(row.roundTrip->count()) : nullptr}});
  }
  const nlohmann::ordered_json document{{"request", report.options.nakKill ? "nak-kill" : "test"},
                                        {"dry_run", report.options.dryRun},
                                        {"request_id", report.question.requestId},
                                        {"topic", report.question.topic},
                                        {"environment", UpperCase(report.options.environment)},
                                        {"data_center", TextOrNull(UpperCase(report.options.dataCenter))},
                                        {"directory", TextOrNull(report.outcome.directory)},
                                        {"seconds", report.elapsed.count()},
                                        {"exit_code", static_cast<int>(Judge(report).code)},
                                        {"answers", report.outcome.answers.size()},
                                        {"silent", report.outcome.silentCount},
                                        {"unasked", report.outcome.unasked.size()},
                                        {"processes", processes}};
  // Names and ids may be any bytes.
  return document.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + '\n';
}

Verdict Judge(const Report& report) {
  using cli::ExitCode;
  const auto& outcome = report.outcome;
  const auto found = Found(report);
  if (found == 0) {
    return {ExitCode::kNoAnswer, report.options.dryRun ? NobodyListens(report) : NobodyAnswered(report)};
  }
  const auto failures = static_cast<std::size_t>(std::count_if(outcome.answers.begin(), outcome.answers.end(),
                                                               [](const Answer& answer) { return !answer.success; }));
  if (failures > 0) {
    return {ExitCode::kRefused, Answers(failures) + " without success"};
  }
  if (HasEnough(report)) {
    return {};
  }
  auto complaint = report.options.dryRun ? Processes(found) : Answers(found);
  if (report.options.expected) {
    complaint += fmt::format(" instead of {}", *report.options.expected);
  }
  if (outcome.silentCount > 0) {
    complaint +=
        fmt::format("; {} got the request and did not answer: {}", Processes(outcome.silentCount), Silent(outcome));
  }
  return {ExitCode::kUnsatisfied, complaint};
}

}  // namespace triage
