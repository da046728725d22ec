#include "call.h"
#include "cli/format.h"
#include "cli/one_line.h"
#include "cli/table.h"
#include "json.h"
#include "looks.h"
#include "texts.h"

namespace price_stat {
namespace {

std::string ListText(const std::vector<Process>& processes) {
  cli::Table table(5);
  table.Add({"program", "process", "context", "handle", "state", "up"});
  std::string faults;
  for (const auto& process : processes) {
    const auto up = process.snapshot ? cli::FormatDuration(process.UptimeSeconds()) : "-";
    const auto add = [&](const Context& context) {
      table.Add({cli::OneLine(process.Program()), NumberOf(process),
                 context.name.empty() ? "-" : cli::OneLine(context.name),
                 context.handle.empty() ? "-" : cli::OneLine(context.handle),
                 StateText(context.state, context.hangNanoseconds), up});
    };
    for (const auto& context : process.contexts) {
      add(context);
    }
    if (process.contexts.empty()) {
      add({.state = process.state});
    }
    if (!process.fault.empty()) {
      faults += cli::OneLine(process.fault) + '\n';
    }
  }
  return table.ToString() + faults;
}

cli::ExitCode List(const Call& call, const std::vector<std::string>& names, const cli::Output& output) {
  cli::SignalWait signals{SIGINT, SIGTERM, SIGHUP};
  const auto processes = Looks(call.directory, names).TakeUntilSure(signals);
  if (call.json) {
    auto heads = nlohmann::ordered_json::array();
    for (const auto& process : processes) {
      heads.push_back(HeadJson(process));
    }
    output.Write(ToText({{"directory", call.directory}, {"processes", std::move(heads)}}));
  }
  if (processes.empty()) {
    ComplainOfNothing(call.directory, processes);
    return cli::ExitCode::kUnsatisfied;
  }
  if (!call.json) {
    output.Write(ListText(processes));
  }
  return cli::ExitCode::kOk;
}

}  // namespace

void AddList(CLI::App& app, Call& call) {
  auto* const command = app.add_subcommand("list", "Processes, their contexts, and who hangs");
  AddJsonOption(*command, call);
  const auto names = AddNames(*command);
  command->callback(
      [&call, names] { call.run = [&call, names](const cli::Output& output) { return List(call, *names, output); }; });
}

}  // namespace price_stat
