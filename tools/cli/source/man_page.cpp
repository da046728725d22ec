#include <fmt/chrono.h>
#include <fmt/format.h>

#include <cctype>
#include <ctime>
#include <sstream>

#include "cli/manual.h"
#include "definitions.h"
#include "wrap.h"
#include "zq/posix/environment.h"

namespace cli {
namespace {

// Text as roff takes it: nothing in it is a request, an escape sequence or a hyphen that is no minus.
std::string Escaped(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    if (c == '\\') {
      escaped += "\\e";
    } else if (c == '-') {
      escaped += "\\-";
    } else {
      escaped += c;
    }
  }
  return escaped;
}

// Short lines of text, with a new one for each sentence.
std::string Text(std::string_view text) {
  constexpr std::size_t kColumns = 76;
  std::string lines;
  for (auto left = Escaped(text); !left.empty();) {
    const auto end = std::min(left.find(". "), left.size() - 1) + 1;
    std::istringstream sentence(Wrapped(left.substr(0, end), kColumns));
    for (std::string line; std::getline(sentence, line);) {
      lines += (line.find_first_of(".'") == 0 ? "\\&" : "") + line + '\n';
    }
    left.erase(0, std::min(end + 1, left.size()));
  }
  return lines;
}

// An argument of a macro, whatever it looks like.
std::string Argument(std::string_view text) {
  std::string argument;
  for (const char c : Escaped(text)) {
    // Between other characters, what is a delimiter alone is part of the word.
    argument += c == '"' ? std::string("\\(dq") : std::string(1, c);
  }
  return "\\&" + argument;
}

std::string Form(const CLI::Option& option) {
  if (!option.nonpositional()) {
    return "Ar " + Argument(option.get_type_name());
  }
  auto form = "Fl " + Argument(NameOf(option).substr(1));
  if (TakesValue(option)) {
    form += " Ar " + Argument(option.get_type_name());
  }
  return form;
}

std::string OptionList(const CLI::App& app) {
  std::string list = ".Bl -tag -width Ds\n";
  auto options = ArgumentsOf(app);
  const auto named = OptionsOf(app);
  options.insert(options.end(), named.begin(), named.end());
  for (const auto* const option : options) {
    list += ".It " + Form(*option) + '\n' + Text(option->get_description() + '.');
    if (!option->get_default_str().empty()) {
      list += "Default:\n.Ql " + Argument(option->get_default_str()) + " .\n";
    }
    if (!option->get_envname().empty()) {
      list += "Without the option the environment variable\n.Ev " + option->get_envname() + "\nis taken.\n";
    }
  }
  return list + ".El\n";
}

std::string Synopsis(const CLI::App& app) {
  std::string synopsis;
  if (const auto commands = CommandsOf(app); !commands.empty()) {
    for (const auto* const command : commands) {
      synopsis += ".Nm\n.Cm " + Argument(command->get_name()) + "\n.Op Ar option ...\n";
      for (const auto* const argument : ArgumentsOf(*command)) {
        synopsis += std::string(argument->get_required() ? "." : ".Op ") + Form(*argument) +
                    (argument->get_items_expected_max() > 1 ? " ...\n" : "\n");
      }
    }
    return synopsis;
  }
  synopsis = ".Nm\n";
  for (const auto* const option : OptionsOf(app)) {
    if (option->get_required()) {
      synopsis += '.' + Form(*option) + '\n';
    }
  }
  return synopsis + ".Op Ar option ...\n";
}

std::string Today() {
  const auto given = zq::posix::Environment("SOURCE_DATE_EPOCH");
  const std::time_t time = given.empty() ? std::time(nullptr) : static_cast<std::time_t>(std::stoll(given));
  const auto day = fmt::gmtime(time);
  return fmt::format("{:%B} {}, {:%Y}", day, day.tm_mday, day);
}

std::string Uncapitalised(std::string text) {
  text.front() = static_cast<char>(std::tolower(static_cast<unsigned char>(text.front())));
  return text;
}

std::string UpperCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::toupper(c); });
  return text;
}

std::string Exits(const Manual& manual) {
  std::string text = ".Bl -tag -width Ds\n";
  for (const auto& [code, meaning] : manual.exits) {
    text += fmt::format(".It {}\n", static_cast<int>(code)) + Text(meaning + std::string("."));
  }
  return text + ".El\n";
}

std::string Examples(const Manual& manual) {
  std::string text;
  for (const auto& [command, what] : manual.examples) {
    text += (text.empty() ? "" : ".Pp\n") + Text(what + std::string(":")) + ".Dl " + Argument(command) + '\n';
  }
  return text;
}

}  // namespace

std::string ManPage(const CLI::App& app, const Manual& manual) {
  const auto name = app.get_name();
  const auto description = app.get_description();
  std::string page = fmt::format(".Dd {}\n.Dt {} 1\n.Os\n.Sh NAME\n.Nm {}\n.Nd {}\n", Today(), UpperCase(name), name,
                                 Escaped(Uncapitalised(description.substr(0, description.find_last_not_of('.') + 1))));
  page += ".Sh SYNOPSIS\n" + Synopsis(app) + ".Sh DESCRIPTION\n" + Text(description);
  for (const auto* const note : manual.notes) {
    page += ".Pp\n" + Text(note);
  }
  for (const auto* const command : CommandsOf(app)) {
    page += ".Ss " + Argument(name + ' ' + command->get_name()) + '\n' + Text(command->get_description() + '.') +
            OptionList(*command);
  }
  page += CommandsOf(app).empty() ? ".Ss Options\n" : ".Ss Options of all commands\n";
  page += OptionList(app) + ".Sh ENVIRONMENT\nSee\n.Xr price_connector 7 .\n.Sh EXIT STATUS\n" + Exits(manual);
  if (!manual.examples.empty()) {
    page += ".Sh EXAMPLES\n" + Examples(manual);
  }
  page += ".Sh SEE ALSO\n";
  for (const auto* const tool : {"price_client", "price_server", "price_stat", "triage"}) {
    if (tool != name) {
      page += fmt::format(".Xr {} 1 ,\n", tool);
    }
  }
  return page + ".Xr price_connector 7 ,\n.Xr price_connector-options 7\n";
}

}  // namespace cli
