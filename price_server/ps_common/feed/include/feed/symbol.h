// Symbols of traded instruments, in a form that needs no memory of its own.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#pragma GCC visibility push(default)

namespace feed {

// 1 to kMaxLength visible ASCII characters without blanks; nothing in it can upset a terminal or a table. A default
// symbol is empty and stands for none. Trivially copyable.
class Symbol {
 public:
  static constexpr std::size_t kMaxLength = 20;

  constexpr Symbol() = default;

  static constexpr std::optional<Symbol> Parse(std::string_view text) {
    if (text.empty() || text.size() > kMaxLength) {
      return std::nullopt;
    }
    Symbol symbol;
    for (std::size_t at = 0; at < text.size(); ++at) {
      if (text[at] <= ' ' || text[at] >= 0x7f) {
        return std::nullopt;
      }
      symbol.m_text[at] = text[at];
    }
    symbol.m_length = static_cast<std::uint8_t>(text.size());
    return symbol;
  }

  constexpr std::string_view View() const { return {m_text.data(), m_length}; }

  friend constexpr bool operator==(const Symbol& a, const Symbol& b) { return a.View() == b.View(); }
  friend constexpr bool operator!=(const Symbol& a, const Symbol& b) { return !(a == b); }

 private:
  std::array<char, kMaxLength> m_text{};
  std::uint8_t m_length = 0;
};

}  // namespace feed

#pragma GCC visibility pop
