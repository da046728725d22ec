#include "feed/instance_text.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

#include "cli/exit_code.h"

namespace feed {
namespace {

// "1:2:3:name" has no more than four pieces: further colons belong to the name.
std::vector<std::string_view> SplitAtColons(std::string_view text) {
  std::vector<std::string_view> pieces;
  while (pieces.size() < 3) {
    const auto colon = text.find(':');
    pieces.push_back(text.substr(0, colon));
    if (colon == std::string_view::npos) {
      return pieces;
    }
    text.remove_prefix(colon + 1);
  }
  pieces.push_back(text);
  return pieces;
}

std::optional<std::int16_t> ParseNumber(std::string_view text) {
  std::uint16_t number = 0;
  const auto* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end || number > std::numeric_limits<std::int16_t>::max()) {
    return std::nullopt;
  }
  return static_cast<std::int16_t>(number);
}

}  // namespace

bool IsMarketName(std::string_view text) {
  constexpr std::size_t kMaxLength = 32;
  return !text.empty() && text.size() <= kMaxLength &&
         std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < 0x7f; });
}

ps_ns::ServerInstance ParseServerInstance(const std::string& text) {
  const auto pieces = SplitAtColons(text);
  if (pieces.size() >= 3) {
    const auto market = ParseNumber(pieces[0]);
    const auto submarket = ParseNumber(pieces[1]);
    const auto node = ParseNumber(pieces[2]);
    const auto name = pieces.size() == 4 ? pieces[3] : std::string_view();
    const bool nameIsGood = pieces.size() == 3 || IsMarketName(name);
    if (market && submarket && node && nameIsGood) {
      ps_ns::ServerInstance instance;
      instance.m_marketID = *market;
      instance.m_submarketID = *submarket;
      instance.m_nodeID = *node;
      instance.m_marketName = name;
      return instance;
    }
  }
  throw cli::UsageError(
      "bad server instance \"" + text +
      "\"; expected market:submarket:node or market:submarket:node:name, numbers from 0 to 32767, such as "
      "1:1:1:STOCKS");
}

}  // namespace feed
