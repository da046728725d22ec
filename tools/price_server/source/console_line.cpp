#include "console_line.h"

#include <sstream>
#include <vector>

#include "cli/one_line.h"
#include "ps_common/connector/topic_names.h"

namespace price_server {

const std::string_view kConsoleHelp =
    "host <hostname> <command> [<argument>...]       to all clients on a host\n"
    "client <client id> <command> [<argument>...]    to one client\n"
    "help                                            shows this\n"
    "Commands that clients know: report, pause, resume, quit.\n";

std::optional<ConsoleCommand> ParseConsoleLine(std::string_view line) {
  if (line.size() > cli::kMaxTextLength) {
    throw BadConsoleLine("a line of more than " + std::to_string(cli::kMaxTextLength) + " bytes");
  }
  std::istringstream text{std::string(line)};
  std::vector<std::string> words;
  for (std::string word; text >> word;) {
    words.push_back(word);
  }
  if (words.empty() || words[0].starts_with('#')) {
    return std::nullopt;
  }
  for (const auto& word : words) {
    if (word != cli::OneLine(word)) {
      throw BadConsoleLine("bytes that are not UTF-8, or control characters");
    }
  }

  const bool isForHost = words[0] == "host";
  if (!isForHost && words[0] != "client") {
    throw BadConsoleLine('"' + words[0] + "\" is neither host nor client");
  }
  if (words.size() < 3) {
    throw BadConsoleLine(isForHost ? "hostname or command missing" : "client id or command missing");
  }
  ConsoleCommand result;
  result.receiver = words[0] + ' ' + words[1];
  result.command.name = words[2];
  result.command.arguments.assign(words.begin() + 3, words.end());
  if (result.command.arguments.size() > feed::Command::kMaxArguments) {
    throw BadConsoleLine("more than " + std::to_string(feed::Command::kMaxArguments) + " arguments");
  }
  try {
    result.topic = isForHost ? ps_ns::TopicNames::CreateClientHostCommandTopic(words[1])
                             : ps_ns::TopicNames::CreateClientIDCommandTopic(words[1]);
  } catch (const std::length_error& error) {
    throw BadConsoleLine(error.what());
  }
  return result;
}

}  // namespace price_server
