#include "cli/table.h"

#include <algorithm>

namespace cli {

std::vector<Table::Row> Table::Aligned() const {
  auto widths = m_minWidths;
  for (const auto& row : m_rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], row[i].size());
    }
  }
  auto rows = m_rows;
  for (auto& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      row[i].insert(i < m_textColumns ? row[i].size() : 0, widths[i] - row[i].size(), ' ');
    }
  }
  return rows;
}

std::string Table::ToString() const {
  std::string text;
  for (const auto& row : Aligned()) {
    const char* gap = "";
    for (const auto& cell : row) {
      text += gap + cell;
      gap = kGap;
    }
    text.erase(text.find_last_not_of(' ') + 1);
    text += '\n';
  }
  return text;
}

}  // namespace cli
