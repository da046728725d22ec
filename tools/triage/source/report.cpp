#include "report.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "cli/one_line.h"
#include "cli/table.h"
#include "zq/messaging/triage_requests.h"

namespace triage {
namespace {

using zq::messaging::triage::UpperCase;

std::string Milliseconds(std::chrono::nanoseconds time) {
  return fmt::format("{:.3f} ms", std::chrono::duration<double, std::milli>(time).count());
}

std::string OrUnknown(const std::string& text) { return text.empty() ? "?" : text; }

std::string Answers(std::size_t count) { return fmt::format("{} answer{}", count, count == 1 ? "" : "s"); }

std::string Processes(std::size_t count) { return fmt::format("{} process{}", count, count == 1 ? "" : "es"); }

// Who was still to answer when as many as expected had done so is no matter.
bool HasEnough(const Report& report) {
  const auto& expected = report.options.expected;
  return expected ? report.outcome.answers.size() >= *expected : report.outcome.silentCount == 0;
}

// Names of who did not answer, as far as they are known.
std::string Silent(const Outcome& outcome) {
  return outcome.silent.empty() ? "which ones is not known"
                                : cli::OneLine(fmt::format("{}", fmt::join(outcome.silent, ", ")));
}

std::string NobodyAnswered(const Report& report) {
  const auto& outcome = report.outcome;
  if (outcome.silentCount > 0) {
    return fmt::format(
        "nobody answered in {:.1f} s, although {} on {}: {}\n"
        "They have got the request. Look at:\n"
        "  - whether the thread that serves it is held up: \"lbm_th_evq\" if TRIAGE_HANDLER_USE_EVENT_QUEUE is set,\n"
        "    else the one that processes the events of the context without a name\n"
        "  - their logs, for this request's id or \"Failed responding\"",
        report.elapsed.count(), outcome.silentCount == 1 ? "one process listens" : "processes listen",
        report.question.topic, Silent(outcome));
  }
  return fmt::format(
      "nobody answered in {:.1f} s; as far as is known, nobody listens on {}\n"
      "Look at:\n"
      "  - CHEF_ENVIRONMENT, DATA_CENTER and LBM_TRIAGE_HANDLER_TOPIC_PREFIX of the processes: with these names,\n"
      "    they have to give that topic; a process that lacks one of the first two logs an error and does not listen\n"
      "  - DISABLE_LBM_TRIAGE_HANDLER: where it is set, nobody listens\n"
      "  - the names of their contexts: a process listens only if one of its contexts has no name\n"
      "  - LBM_RUNTIME_DIR or XDG_RUNTIME_DIR, LBM_CONFIG_FILE, and the user: those of the processes and of this tool\n"
      "    have to be equal\n"
      "  - whether they are stopped or hang: then they do not even take notice of this tool",
      report.elapsed.count(), report.question.topic);
}

nlohmann::ordered_json TextOrNull(const std::string& text) {
  return text.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(text);
}

}  // namespace

std::string Table(const Report& report) {
  const auto& outcome = report.outcome;
  std::string text;
  if (!outcome.answers.empty()) {
    cli::Table table(4);
    table.Add({"process", "environment", "data center", "status", "round trip"});
    for (const auto& answer : outcome.answers) {
      table.Add({cli::OneLine(OrUnknown(answer.process)), UpperCase(report.options.environment),
                 OrUnknown(UpperCase(report.options.dataCenter)), answer.status, Milliseconds(answer.roundTrip)});
    }
    text += table.ToString();
  }
  text += fmt::format("{} to {} on {} in {:.1f} s\n", Answers(outcome.answers.size()), report.question.requestId,
                      report.question.topic, report.elapsed.count());
  if (report.options.nakKill && !outcome.answers.empty()) {
    text += "success means that the request was understood; what became of the NAKs is in the processes' logs\n";
  }
  if (outcome.late > 0 && !(report.options.expected && HasEnough(report))) {
    text += fmt::format("{} began to listen too late to be asked; ask again\n", Processes(outcome.late));
  }
  return text;
}

std::string Json(const Report& report) {
  const auto environment = UpperCase(report.options.environment);
  const auto dataCenter = TextOrNull(UpperCase(report.options.dataCenter));
  auto answers = nlohmann::ordered_json::array();
  for (const auto& answer : report.outcome.answers) {
    answers.push_back({{"process", TextOrNull(answer.process)},
                       {"environment", environment},
                       {"data_center", dataCenter},
                       {"status", answer.status},
                       {"success", answer.success},
                       {"round_trip_ns", answer.roundTrip.count()}});
  }
  const nlohmann::ordered_json document{{"request", report.options.nakKill ? "nak-kill" : "test"},
                                        {"request_id", report.question.requestId},
                                        {"topic", report.question.topic},
                                        {"environment", environment},
                                        {"data_center", dataCenter},
                                        {"seconds", report.elapsed.count()},
                                        {"exit_code", static_cast<int>(Judge(report).code)},
                                        {"answers", answers},
                                        {"silent_count", report.outcome.silentCount},
                                        {"silent", report.outcome.silent},
                                        {"late", report.outcome.late}};
  // Names and ids may be any bytes.
  return document.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + '\n';
}

Verdict Judge(const Report& report) {
  using cli::ExitCode;
  const auto& outcome = report.outcome;
  if (outcome.answers.empty()) {
    return {ExitCode::kNoAnswer, NobodyAnswered(report)};
  }
  const auto failures = static_cast<std::size_t>(std::count_if(outcome.answers.begin(), outcome.answers.end(),
                                                               [](const Answer& answer) { return !answer.success; }));
  if (failures > 0) {
    return {ExitCode::kRefused, Answers(failures) + " without success"};
  }
  if (HasEnough(report)) {
    return {};
  }
  std::string complaint = Answers(outcome.answers.size());
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
