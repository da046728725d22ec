#include <fmt/format.h>

#include <algorithm>

#include "cli/manual.h"
#include "definitions.h"

namespace cli {
namespace {

// The statement that completes a value of the type; empty when nothing is known of its values.
std::string CompletionOf(const std::string& typeName) {
  constexpr const char* kNames = "compopt -o filenames; mapfile -t COMPREPLY < <(compgen -{} -- \"$word\")";
  if (typeName == "FILE") {
    return fmt::format(kNames, 'f');
  }
  if (typeName == "DIR") {
    return fmt::format(kNames, 'd');
  }
  const auto words = WordsOf(typeName);
  return words.empty() ? words : fmt::format("mapfile -t COMPREPLY < <(compgen -W '{}' -- \"$word\")", words);
}

// Cases for what follows an option that takes a value.
std::string ValueCases(const CLI::App& app, const std::string& command) {
  std::string cases;
  for (const auto* const option : OptionsOf(app)) {
    if (TakesValue(*option)) {
      const auto completion = CompletionOf(option->get_type_name());
      cases += fmt::format("    {}:{}) {}return ;;\n", command, NameOf(*option),
                           completion.empty() ? completion : completion + "; ");
    }
  }
  return cases;
}

std::string OptionNames(const CLI::App& app) {
  std::string names;
  for (const auto* const option : OptionsOf(app)) {
    names += (names.empty() ? "" : " ") + NameOf(*option);
  }
  return names;
}

// The case of a command, or of the app with the name "*": its options, and its arguments where no option begins.
std::string WordCase(const CLI::App& app, const std::string& command, const std::string& words) {
  std::string files;
  for (const auto* const argument : ArgumentsOf(app)) {
    if (const auto completion = CompletionOf(argument->get_type_name()); !completion.empty()) {
      files = fmt::format("      [[ $word == -* ]] || {{ {}; return; }}\n", completion);
    }
  }
  return fmt::format("    {})\n{}      words='{}'\n      ;;\n", command, files, words);
}

}  // namespace

std::string BashCompletion(const CLI::App& app) {
  const auto tool = app.get_name();
  const auto common = OptionNames(app);
  std::string commands;
  std::string values;
  std::string words;
  for (const auto* const command : CommandsOf(app)) {
    commands += (commands.empty() ? "" : "|") + command->get_name();
    values += ValueCases(*command, command->get_name());
    words += WordCase(*command, command->get_name(), CLI::detail::trim_copy(OptionNames(*command) + ' ' + common));
  }
  std::string search;
  std::string first = common;
  if (!commands.empty()) {
    search = fmt::format(
        "  local i\n"
        "  for ((i = 1; i < COMP_CWORD; ++i)); do\n"
        "    case ${{COMP_WORDS[i]}} in {}) command=${{COMP_WORDS[i]}}; break ;; esac\n"
        "  done\n",
        commands);
    std::replace(commands.begin(), commands.end(), '|', ' ');
    first = commands + ' ' + common;
  }
  return fmt::format(
      "# Completion of {0} for bash, made by: {0} --generate bash\n"
      "_{0}() {{\n"
      "  local word=${{COMP_WORDS[COMP_CWORD]}} previous=${{COMP_WORDS[COMP_CWORD - 1]}} command= words\n"
      "  # bash takes --option=value apart.\n"
      "  if [[ $word == '=' ]]; then\n"
      "    word=\n"
      "  elif [[ $previous == '=' ]]; then\n"
      "    previous=${{COMP_WORDS[COMP_CWORD - 2]}}\n"
      "  fi\n"
      "{1}"
      "  COMPREPLY=()\n"
      "  case $command:$previous in\n"
      "{2}{3}"
      "  esac\n"
      "  case $command in\n"
      "{4}{5}"
      "  esac\n"
      "  mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$word\")\n"
      "}}\n"
      "complete -F _{0} {0}\n",
      tool, search, values, ValueCases(app, "*"), words, WordCase(app, "*", first));
}

}  // namespace cli
