#include <fmt/format.h>

#include <system_error>

#include "call.h"
#include "cli/format.h"
#include "cli/one_line.h"
#include "cli/table.h"
#include "difference.h"
#include "json.h"
#include "looks.h"
#include "texts.h"
#include "zq/posix/file.h"

namespace price_stat {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kMaxFileBytes = std::size_t{1} << 30;

Json ReadDocument(const std::string& path) {
  try {
    return Json::parse(zq::posix::ReadFile(path, kMaxFileBytes));
  } catch (const std::system_error& error) {
    throw cli::UsageError(error.what());
  } catch (const Json::exception& error) {
    throw cli::UsageError(path + ": " + error.what());
  }
}

Json DocumentOfNow(const Call& call) {
  auto processes = Json::array();
  for (const auto& process : Looks(call.directory, {}).Take()) {
    processes.push_back(FullJson(process));
  }
  return {{"processes", std::move(processes)}};
}

std::string Text(const Json& json) { return cli::OneLine(json.get<std::string>()); }

std::string LabelsText(const Json& labels) {
  std::string text;
  for (const auto& [name, label] : labels.items()) {
    if (name != "handle" && !label.get_ref<const std::string&>().empty()) {
      text += (text.empty() ? "" : " ") + Text(label);
    }
  }
  return text.empty() ? "-" : text;
}

std::string Signed(const Field& field, std::int64_t number) {
  return (number > 0 ? "+" : "") + NumberText(field, number);
}

// Whether the row came or went, and quantiles of a histogram.
std::string NoteText(const Json& change, const Field& field) {
  if (change.contains("values")) {
    const auto& values = change["values"];
    return fmt::format("p50 {}, p99 {}", NumberText(field, values["p50"].get<std::int64_t>()),
                       NumberText(field, values["p99"].get<std::int64_t>()));
  }
  return change.contains("row") ? Text(change["row"]) : "-";
}

std::string ProcessText(const Json& process) {
  auto text = fmt::format("{} {}  over {:.1f} s\n", Text(process["program"]), process["process"].get<std::int64_t>(),
                          process["seconds"].get<double>());
  if (process["changes"].empty()) {
    return text + "nothing has changed\n";
  }
  cli::Table table(4);
  table.Add({"kind", "row", "field", "", "before", "after", "growth", "now"});
  for (const auto& change : process["changes"]) {
    Field field{.type = FieldType::kGauge, .unit = change["unit"].get<std::string>()};
    auto note = NoteText(change, field);
    if (change.contains("values")) {
      field.unit.clear();  // numbers of values
    }
    table.Add({Text(change["kind"]), LabelsText(change["labels"]), Text(change["field"]), std::move(note),
               NumberText(field, change["before"].get<std::int64_t>()),
               NumberText(field, change["after"].get<std::int64_t>()),
               Signed(field, change["growth"].get<std::int64_t>()),
               change.contains("per_second") ? RateText(field, change["per_second"].get<double>()) : "-"});
  }
  return text + table.ToString();
}

std::string DifferenceText(const Json& difference) {
  std::string text;
  for (const auto& process : difference["processes"]) {
    text += (text.empty() ? "" : "\n") + ProcessText(process);
  }
  for (const auto& [where, what] : {std::pair{"only_before", "not there any more"}, {"only_after", "new"}}) {
    for (const auto& process : difference[where]) {
      text += fmt::format("{} {}  {}\n", Text(process["program"]), process["process"].get<std::int64_t>(), what);
    }
  }
  return text;
}

cli::ExitCode Diff(const Call& call, const std::string& before, const std::string& after, const cli::Output& output) {
  const auto oldDocument = ReadDocument(before);
  const auto newDocument = after.empty() ? DocumentOfNow(call) : ReadDocument(after);
  try {
    const auto difference = Difference(oldDocument, newDocument);
    output.Write(call.json ? ToText(difference) : DifferenceText(difference));
  } catch (const Json::exception& error) {
    throw cli::UsageError(before + (after.empty() ? "" : " or " + after) +
                          " is no document of price_stat show --json: " + error.what());
  }
  return cli::ExitCode::kOk;
}

}  // namespace

void AddDiff(CLI::App& app, Call& call) {
  auto* const command = app.add_subcommand("diff", "What has changed between two documents of show --json");
  AddJsonOption(*command, call);
  const auto before = std::make_shared<std::string>();
  const auto after = std::make_shared<std::string>();
  command->add_option("before", *before, "The older document")->required()->type_name("FILE");
  command->add_option("after", *after, "The newer one; without it, what the pages say now")->type_name("FILE");
  command->callback([&call, before, after] {
    call.run = [&call, before, after](const cli::Output& output) { return Diff(call, *before, *after, output); };
  });
}

}  // namespace price_stat
