#include <fnmatch.h>

#include "call.h"
#include "cli/one_line.h"
#include "cli/table.h"
#include "json.h"
#include "looks.h"
#include "texts.h"

namespace price_stat {
namespace {

struct Filter {
  std::string name = "*";
  bool changed = false;

  bool Takes(const RowValues& row) const {
    return !IsOther(row) && (!changed || row.Label("origin") != "default") &&
           ::fnmatch(name.c_str(), std::string(row.Label("option")).c_str(), 0) == 0;
  }
};

cli::ExitCode ShowOptions(const Call& call, const Filter& filter, const std::vector<std::string>& names,
                          const cli::Output& output) {
  const auto processes = Looks(call.directory, names).Take();
  auto json = nlohmann::ordered_json::array();
  cli::Table table(7);
  table.Add({"program", "process", "context", "owner", "option", "value", "origin"});
  bool isEmpty = true;
  for (const auto& process : processes) {
    if (!process.snapshot) {
      continue;
    }
    for (const auto* const row : process.snapshot->Of("option")) {
      if (!filter.Takes(*row)) {
        continue;
      }
      isEmpty = false;
      nlohmann::ordered_json entry{
          {"program", process.Program()}, {"process", process.snapshot->process}, {"state", NameOf(process.state)}};
      for (const char* const label : {"context", "handle", "owner", "option", "value", "origin"}) {
        entry[label] = row->Label(label);
      }
      json.push_back(std::move(entry));
      table.Add({cli::OneLine(process.Program()), NumberOf(process),
                 ContextName(row->Label("context"), row->Label("handle")), cli::OneLine(row->Label("owner")),
                 cli::OneLine(row->Label("option")), cli::OneLine(row->Label("value")),
                 cli::OneLine(row->Label("origin"))});
    }
  }
  if (call.json) {
    output.Write(ToText({{"directory", call.directory}, {"options", std::move(json)}}));
  } else if (!isEmpty) {
    output.Write(table.ToString());
  }
  if (isEmpty) {
    ComplainOfNothing(call.directory, processes);
  }
  return isEmpty ? cli::ExitCode::kUnsatisfied : cli::ExitCode::kOk;
}

}  // namespace

void AddOptions(CLI::App& app, Call& call) {
  auto* const command =
      app.add_subcommand("options", "Options of processes: effective values, and where they are from");
  AddJsonOption(*command, call);
  const auto names = AddNames(*command);
  const auto filter = std::make_shared<Filter>();
  command->add_option("--name", filter->name, "Only options of this pattern, as of file names")
      ->type_name("PATTERN")
      ->capture_default_str();
  command->add_flag("--changed", filter->changed, "Only options that somebody has set");
  command->callback([&call, names, filter] {
    call.run = [&call, names, filter](const cli::Output& output) { return ShowOptions(call, *filter, *names, output); };
  });
}

}  // namespace price_stat
