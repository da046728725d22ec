// Pictures for terminals.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace cli {

struct ScreenSize {
  unsigned columns = 80;
  unsigned rows = 24;
};

enum class Style : std::uint8_t { kPlain, kBold, kDim, kGreen, kRed, kYellow };

// A picture that fills the screen from its top left corner and leaves nothing of the one before. Collects lines of
// ASCII text, cut at the screen's width whatever the styles in them.
class Frame {
 public:
  Frame(ScreenSize size, bool colour) : m_size(size), m_colour(colour), m_text("\x1b[H") {}

  Frame& Add(std::string_view text, Style style = Style::kPlain);

  void EndLine();

  unsigned RowsLeft() const { return m_size.rows - std::min(m_size.rows, m_row); }

  std::string Finish() &&;

 private:
  ScreenSize m_size;
  bool m_colour;
  std::string m_text;
  std::size_t m_column = 0;
  unsigned m_row = 0;
};

}  // namespace cli
