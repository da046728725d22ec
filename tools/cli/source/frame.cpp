#include "cli/frame.h"

#include <utility>

namespace cli {
namespace {

std::string_view CodeOf(Style style) {
  switch (style) {
    case Style::kPlain:
      return "";
    case Style::kBold:
      return "\x1b[1m";
    case Style::kDim:
      return "\x1b[2m";
    case Style::kGreen:
      return "\x1b[32m";
    case Style::kRed:
      return "\x1b[31m";
    case Style::kYellow:
      return "\x1b[33m";
  }
  return "";
}

}  // namespace

Frame& Frame::Add(std::string_view text, Style style) {
  if (RowsLeft() == 0) {
    return *this;
  }
  text = text.substr(0, m_size.columns - std::min<std::size_t>(m_size.columns, m_column));
  m_column += text.size();
  const auto code = m_colour ? CodeOf(style) : std::string_view();
  m_text += code;
  m_text += text;
  if (!code.empty()) {
    m_text += "\x1b[0m";
  }
  return *this;
}

// There is no end of line after the last row, as it would scroll the screen.
void Frame::EndLine() {
  if (RowsLeft() == 0) {
    return;
  }
  m_text += "\x1b[K";
  if (++m_row < m_size.rows) {
    m_text += "\r\n";
  }
  m_column = 0;
}

std::string Frame::Finish() && {
  if (RowsLeft() > 0) {
    m_text += "\x1b[J";
  }
  return std::move(m_text);
}

}  // namespace cli
