// The definitions of a command line, as its manual and its completion need them.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace cli {

// "--seconds", or the name of an argument that has no dashes.
inline std::string NameOf(const CLI::Option& option) { return option.get_name(); }

inline bool TakesValue(const CLI::Option& option) { return option.get_items_expected_max() > 0; }

// Of a type name "a|b|c" the parts, with blanks between them, that can be typed as they are, which a range such as
// "1..64" cannot; nothing of other type names.
inline std::string WordsOf(const std::string& typeName) {
  std::string words;
  if (typeName.find('|') != std::string::npos) {
    for (const auto& word : CLI::detail::split(typeName, '|')) {
      words += word.find("..") == std::string::npos ? ' ' + word : "";
    }
  }
  return words.empty() ? words : words.substr(1);
}

// Those of the app or command alone, in the order of their definition: its options, but for --help of a command, and
// its arguments without dashes.
inline std::vector<const CLI::Option*> OptionsOf(const CLI::App& app) {
  return app.get_options([&app](const CLI::Option* option) {
    return option->nonpositional() && (app.get_parent() == nullptr || option != app.get_help_ptr());
  });
}
inline std::vector<const CLI::Option*> ArgumentsOf(const CLI::App& app) {
  return app.get_options([](const CLI::Option* option) { return !option->nonpositional(); });
}

inline std::vector<const CLI::App*> CommandsOf(const CLI::App& app) {
  return app.get_subcommands([](const CLI::App* /*command*/) { return true; });
}

}  // namespace cli
