#include <memory>

#include "call.h"
#include "cli/one_line.h"
#include "cli/table.h"
#include "json.h"
#include "processes.h"

namespace price_stat {
namespace {

cli::ExitCode List(const Call& call, const cli::Output& output) {
  cli::Table table(3);
  table.Add({"process", "state", "fault"});
  for (const auto& process : ReadProcesses(call.directory)) {
    table.Add({cli::OneLine(process.Name()), process.StateText(), cli::OneLine(process.fault)});
  }
  output.Write(table.ToString());
  return cli::ExitCode::kOk;
}

}  // namespace

void AddList(CLI::App& app, Call& call) {
  auto* const command = app.add_subcommand("list", "Processes, their contexts and states");
  AddJsonOption(*command, call);
  command->callback([&call] { call.run = [&call](const cli::Output& output) { return List(call, output); }; });
}

}  // namespace price_stat
