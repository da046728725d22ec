#include "backend/levels.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <iterator>

#include "zq/logging/default_backend.h"

namespace zq::logging {
namespace {

struct NamedLevel {
  LogLevel level;
  std::string_view name;
};

constexpr NamedLevel kLevels[] = {
    {ZQLOG_DEBUG, "DEBUG"},
    {ZQLOG_INFO, "INFO"},
    {ZQLOG_INFO_LOCAL, "INFO_LOCAL"},
    {ZQLOG_INFO_SEARCH, "INFO_SEARCH"},
    {ZQLOG_WARNING, "WARNING"},
    {ZQLOG_ERROR, "ERROR"},
    {ZQLOG_ALERT, "ALERT"},
    {ZQLOG_CRITICAL, "CRITICAL"},
    {ZQLOG_WALL, "WALL"},
};

}  // namespace

std::string_view LevelName(LogLevel level) {
  const auto* const found = std::find_if(std::begin(kLevels), std::end(kLevels),
                                         [&](const NamedLevel& named) { return named.level == level; });
  return found == std::end(kLevels) ? std::string_view() : found->name;
}

std::optional<LogLevel> ParseLevel(std::string_view text) {
  int number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error == std::errc() && end == text.data() + text.size()) {
    return static_cast<LogLevel>(number);
  }
  std::string name(text);
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  constexpr std::string_view kPrefix = "ZQLOG_";
  if (name.compare(0, kPrefix.size(), kPrefix) == 0) {
    name.erase(0, kPrefix.size());
  }
  for (const auto& named : kLevels) {
    if (named.name == name) {
      return named.level;
    }
  }
  return std::nullopt;
}

}  // namespace zq::logging
