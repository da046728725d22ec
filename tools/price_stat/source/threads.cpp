#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <optional>

#include "call.h"
#include "cli/command_line.h"
#include "cli/format.h"
#include "cli/one_line.h"
#include "cli/table.h"
#include "json.h"
#include "looks.h"
#include "system_process.h"
#include "texts.h"

namespace price_stat {
namespace {

using Clock = cli::SignalWait::Clock;

struct ThreadRow {
  SystemThread thread;
  std::optional<double> cpuShare;       // of one CPU, between two looks
  const RowValues* dispatch = nullptr;  // when it processes a context's events
};

struct ThreadTimes {
  Clock::time_point at;
  std::map<pid_t, std::uint64_t> cpuNanoseconds;
};

ThreadTimes TimesOf(const std::vector<SystemThread>& threads) {
  ThreadTimes times{.at = Clock::now()};
  for (const auto& thread : threads) {
    times.cpuNanoseconds[thread.id] = thread.cpuNanoseconds;
  }
  return times;
}

std::vector<ThreadRow> RowsOf(const Process& process, const std::optional<ThreadTimes>& before) {
  std::vector<ThreadRow> rows;
  const auto threads = ThreadsOf(process.snapshot->process);
  const auto seconds = before ? std::chrono::duration<double>(Clock::now() - before->at).count() : 0;
  const auto dispatchers = process.snapshot->Of("dispatch_thread");
  for (const auto& thread : threads) {
    auto& row = rows.emplace_back(ThreadRow{.thread = thread});
    const auto used =
        before ? before->cpuNanoseconds.find(thread.id) : std::map<pid_t, std::uint64_t>::const_iterator();
    if (before && used != before->cpuNanoseconds.end() && used->second <= thread.cpuNanoseconds) {
      row.cpuShare = static_cast<double>(thread.cpuNanoseconds - used->second) / 1e9 / seconds;
    }
    const auto dispatch = std::find_if(dispatchers.begin(), dispatchers.end(), [&](const RowValues* candidate) {
      const auto* const id = candidate->Find("thread");
      return !IsOther(*candidate) && id != nullptr && id->number == thread.id;
    });
    row.dispatch = dispatch == dispatchers.end() ? nullptr : *dispatch;
  }
  return rows;
}

std::string_view StateName(char state) {
  switch (state) {
    case 'R':
      return "running";
    case 'S':
      return "sleeping";
    case 'D':
      return "waiting for the system";
    case 'T':
      return "stopped";
    case 't':
      return "traced";
    case 'Z':
    case 'X':
      return "ended";
    case 'I':
      return "idle";
    default:
      return "?";
  }
}

std::int64_t Gauge(const RowValues& row, std::string_view field, std::int64_t otherwise) {
  const auto* const value = row.Find(field);
  return value == nullptr ? otherwise : value->number;
}

// What the thread does for a context.
std::string WorkText(const RowValues& dispatch) {
  auto text = "events of " + ContextName(dispatch.Label("context"), dispatch.Label("handle"));
  if (const auto wanted = Gauge(dispatch, "cpu_wanted", -1); wanted >= 0) {
    const auto got = Gauge(dispatch, "cpu_got", -1);
    text +=
        got == wanted ? fmt::format(", on CPU {} as wanted", wanted) : fmt::format(", not on CPU {} as wanted", wanted);
  }
  if (Gauge(dispatch, "spinning", 0) != 0) {
    text += ", spins";
  }
  for (const char* const field : {"sockets", "background_tasks"}) {
    if (const auto count = Gauge(dispatch, field, 0); count > 0) {
      std::string name(field);
      std::replace(name.begin(), name.end(), '_', ' ');
      text += fmt::format(", {} {}", count, name);
    }
  }
  return text;
}

std::string ThreadsText(const Process& process, const std::vector<ThreadRow>& rows) {
  auto text = fmt::format("{}  {}\n", ProcessName(process), StateText(process.state, process.hangNanoseconds));
  if (rows.empty()) {
    return text + (process.snapshot ? "its threads cannot be seen from here\n" : cli::OneLine(process.fault) + '\n');
  }
  cli::Table table(6);
  table.Add({"thread", "name", "state", "on CPU", "of", "does", "CPU time", "use"});
  for (const auto& row : rows) {
    const auto& thread = row.thread;
    table.Add({std::to_string(thread.id), cli::OneLine(thread.name), std::string(StateName(thread.state)),
               std::to_string(thread.lastCpu), thread.allowedCpus.empty() ? "?" : cli::OneLine(thread.allowedCpus),
               row.dispatch != nullptr ? WorkText(*row.dispatch) : "-",
               fmt::format("{:.2f} s", static_cast<double>(thread.cpuNanoseconds) / 1e9),
               row.cpuShare ? fmt::format("{:.0f}%", *row.cpuShare * 100) : "-"});
  }
  return text + table.ToString();
}

nlohmann::ordered_json ThreadsJson(const Process& process, const std::vector<ThreadRow>& rows) {
  using Json = nlohmann::ordered_json;
  auto json = HeadJson(process);
  auto& threads = json["threads"] = Json::array();
  for (const auto& row : rows) {
    const auto& thread = row.thread;
    Json entry{{"thread", thread.id},
               {"name", thread.name},
               {"state", std::string(1, thread.state)},
               {"last_cpu", thread.lastCpu},
               {"allowed_cpus", thread.allowedCpus},
               {"cpu_ns", thread.cpuNanoseconds},
               {"cpu_share", row.cpuShare ? Json(*row.cpuShare) : Json(nullptr)},
               {"dispatches", nullptr}};
    if (row.dispatch != nullptr) {
      Json dispatch{{"context", row.dispatch->Label("context")}, {"handle", row.dispatch->Label("handle")}};
      for (std::size_t i = 0; i < row.dispatch->values.size(); ++i) {
        dispatch[row.dispatch->kind->fields[i].name] = row.dispatch->values[i].number;
      }
      entry["dispatches"] = std::move(dispatch);
    }
    threads.push_back(std::move(entry));
  }
  return json;
}

cli::ExitCode ShowThreads(const Call& call, std::chrono::duration<double> interval,
                          const std::vector<std::string>& names, const cli::Output& output) {
  cli::SignalWait signals{SIGINT, SIGTERM, SIGHUP};
  Looks looks(call.directory, names);
  std::map<std::string, ThreadTimes> before;  // by page
  for (const auto& process : looks.Take()) {
    if (process.inOurProc) {
      before.emplace(process.path, TimesOf(ThreadsOf(process.snapshot->process)));
    }
  }
  if (interval.count() > 0 && cli::AsksToStop(signals.WaitUntil(
                                  Clock::now() + std::chrono::duration_cast<std::chrono::nanoseconds>(interval)))) {
    return cli::ExitCode::kOk;
  }
  const auto processes = looks.Take();
  auto json = nlohmann::ordered_json::array();
  std::string text;
  for (const auto& process : processes) {
    std::vector<ThreadRow> rows;
    if (process.inOurProc) {
      const auto found = before.find(process.path);
      const bool hasRate = interval.count() > 0 && found != before.end();
      rows = RowsOf(process, hasRate ? std::optional(found->second) : std::nullopt);
    }
    json.push_back(ThreadsJson(process, rows));
    text += (text.empty() ? "" : "\n") + ThreadsText(process, rows);
  }
  output.Write(call.json ? ToText({{"directory", call.directory}, {"processes", std::move(json)}}) : text);
  if (processes.empty()) {
    ComplainOfNothing(call.directory, processes);
    return cli::ExitCode::kUnsatisfied;
  }
  return cli::ExitCode::kOk;
}

}  // namespace

void AddThreads(CLI::App& app, Call& call) {
  auto* const command = app.add_subcommand("threads", "Threads of processes, and which contexts they serve");
  AddJsonOption(*command, call);
  const auto names = AddNames(*command);
  const auto interval = std::make_shared<std::chrono::duration<double>>(0.2);
  cli::AddSecondsOption(*command, "--interval", *interval, "Seconds over which the use of CPUs is measured");
  command->callback([&call, names, interval] {
    call.run = [&call, names, interval](const cli::Output& output) {
      return ShowThreads(call, *interval, *names, output);
    };
  });
}

}  // namespace price_stat
