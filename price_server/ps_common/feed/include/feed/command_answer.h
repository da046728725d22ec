// What a price client answers to a command, on its command-response topic.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "feed/json_message.h"
#include "feed/result.h"

#pragma GCC visibility push(default)

namespace feed {

struct CommandAnswer {
  using Figures = std::map<std::string, std::int64_t>;
  static constexpr std::size_t kMaxFigures = 24;

  std::uint64_t id = 0;  // of the command; 0 when that was not readable
  std::string clientID;
  std::string host;
  std::string result;  // kResultOk or an error text
  std::string text;    // for people; optional
  Figures figures;     // for machines, by name; at most kMaxFigures; optional
};

bool operator==(const CommandAnswer& a, const CommandAnswer& b);

std::string Encode(const CommandAnswer& message);
std::optional<CommandAnswer> DecodeCommandAnswer(std::string_view bytes) noexcept;

}  // namespace feed

#pragma GCC visibility pop
