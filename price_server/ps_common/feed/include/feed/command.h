// What operators send to price clients, by host or by client id.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "feed/json_message.h"

#pragma GCC visibility push(default)

namespace feed {

// Values of Command::name.
constexpr std::string_view kReportCommand = "report";  // answer with the figures so far
constexpr std::string_view kPauseCommand = "pause";    // take no prices until kResumeCommand
constexpr std::string_view kResumeCommand = "resume";
constexpr std::string_view kQuitCommand = "quit";  // answer, then end in order

struct Command {
  static constexpr std::size_t kMaxArguments = 16;

  std::uint64_t id = 0;                // the sender's choice; comes back in the answers
  std::string name;                    // any text: a client answers one that it does not know with an error
  std::vector<std::string> arguments;  // at most kMaxArguments; optional
};

bool operator==(const Command& a, const Command& b);

std::string Encode(const Command& message);
std::optional<Command> DecodeCommand(std::string_view bytes) noexcept;

}  // namespace feed

#pragma GCC visibility pop
