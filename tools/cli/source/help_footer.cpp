#include <fmt/format.h>

#include "cli/manual.h"
#include "wrap.h"

namespace cli {

std::string HelpFooter(const Manual& manual) {
  constexpr std::size_t kColumns = 110;
  std::string exits;
  for (const auto& [code, meaning] : manual.exits) {
    exits += fmt::format("{}{} {}", exits.empty() ? "Exit codes: " : ", ", static_cast<int>(code), meaning);
  }
  auto footer = Wrapped(exits + '.', kColumns);
  for (const auto* const note : manual.notes) {
    footer += '\n' + Wrapped(note, kColumns);
  }
  return footer;
}

}  // namespace cli
