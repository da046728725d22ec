// Symbols of traded instruments, in a form that needs no memory of its own.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace feed {

// 1 to kMaxLength visible ASCII characters without blanks; nothing in it can upset a terminal or a table. A default
// symbol is empty and stands for none. Trivially copyable.
class Symbol {
 public:
  static constexpr std::size_t kMaxLength = 20;

  constexpr Symbol() = default;

  static constexpr std::optional<Symbol> Parse(std::string_view text) {
    const auto visible = [](char c) { return c > ' ' && c < 0x7f; };
    if (text.empty() || text.size() > kMaxLength || !std::all_of(text.begin(), text.end(), visible)) {
      return std::nullopt;
    }
    Symbol symbol;
    std::copy(text.begin(), text.end(), symbol.m_text.begin());
    symbol.m_length = static_cast<std::uint8_t>(text.size());
    return symbol;
  }

  constexpr std::string_view View() const { return {m_text.data(), m_length}; }

  friend constexpr bool operator==(const Symbol& a, const Symbol& b) { return a.View() == b.View(); }

 private:
  std::array<char, kMaxLength> m_text{};
  std::uint8_t m_length = 0;
};

}  // namespace feed
