// What operators type.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "feed/command.h"

namespace price_server {

struct ConsoleCommand {
  std::string topic;      // on which it goes out
  std::string receiver;   // "host <hostname>" or "client <client id>", for people
  feed::Command command;  // without id
};

// The text says what is wrong with the line.
class BadConsoleLine : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// How lines are written, as text of several lines.
extern const std::string_view kConsoleHelp;

// The word that asks for it.
constexpr std::string_view kHelpWord = "help";

// Reads one line without its end. Nothing for an empty one and for a comment, which starts with '#'. Whether clients
// know the command is for them to say. Throws BadConsoleLine.
std::optional<ConsoleCommand> ParseConsoleLine(std::string_view line);

}  // namespace price_server
