#include <fmt/format.h>

#include "cli/manual.h"
#include "definitions.h"

namespace cli {
namespace {

// Text as a part of an argument of _arguments, between single quotes.
std::string Escaped(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    if (c == '\'') {
      escaped += "'\\''";
    } else {
      escaped += (c == ':' || c == '[' || c == ']' || c == '\\' ? "\\" : "") + std::string(1, c);
    }
  }
  return escaped;
}

// What is completed, and how; by the action for unknown values, with the type shown to the user, when nothing is known
// of its values.
std::string ValueOf(const std::string& typeName, const std::string& unknown) {
  const auto words = WordsOf(typeName);
  auto action = words.empty() ? unknown : '(' + words + ')';
  if (typeName == "FILE") {
    action = "_files";
  } else if (typeName == "DIR") {
    action = "_files -/";
  }
  return Escaped(typeName) + ':' + action;
}

// A line for each option and each argument.
std::string SpecsOf(const CLI::App& app) {
  std::string lines;
  for (const auto* const option : OptionsOf(app)) {
    const bool repeats = option->get_items_expected_max() > 1;
    lines += fmt::format(" \\\n    '{}{}{}[{}]{}'", repeats ? "*" : "", NameOf(*option), TakesValue(*option) ? "=" : "",
                         Escaped(option->get_description()),
                         TakesValue(*option) ? ':' + ValueOf(option->get_type_name(), " ") : "");
  }
  int number = 0;
  for (const auto* const argument : ArgumentsOf(app)) {
    const bool repeats = argument->get_items_expected_max() > 1;
    // The type is not shown where an option begins, as nothing would be completed then.
    const auto type = argument->get_type_name();
    lines += fmt::format(" \\\n    '{}:{}'", repeats ? "*" : std::to_string(++number),
                         ValueOf(type, fmt::format("_guard \"^-*\" {}", type)));
  }
  return lines;
}

}  // namespace

std::string ZshCompletion(const CLI::App& app) {
  const auto tool = app.get_name();
  const auto common = SpecsOf(app);
  std::string commands;
  std::string cases;
  for (const auto* const command : CommandsOf(app)) {
    const auto name = command->get_name();
    commands += fmt::format("    '{}:{}'\n", name, Escaped(command->get_description()));
    cases += fmt::format("  {}) _arguments{}{} ;;\n", name, SpecsOf(*command), common);
  }
  auto body = fmt::format("  _arguments{}\n", common);
  if (!commands.empty()) {
    // What follows the command is for the command's own arguments.
    body = fmt::format(
        "  local state\n"
        "  local -a commands=(\n{}  )\n"
        "  _arguments -A '-*'{} \\\n"
        "    '1: :{{_describe command commands}}' \\\n"
        "    '*:: :->arguments'\n"
        "  [[ $state != arguments ]] || case $words[1] in\n{}  esac\n",
        commands, common, cases);
  }
  return fmt::format(
      "#compdef {0}\n"
      "# Completion of {0} for zsh, made by: {0} --generate zsh\n"
      "_{0}() {{\n{1}}}\n"
      "_{0} \"$@\"\n",
      tool, body);
}

}  // namespace cli
