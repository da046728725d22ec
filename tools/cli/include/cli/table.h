// Tables as the tools print them.
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace cli {

// Columns that are as wide as the widest of their cells: first those of texts, which begin at the left, then those of
// numbers, which end at the right. Every row has as many cells. Widths are counted in bytes.
class Table {
 public:
  using Row = std::vector<std::string>;

  // What stands between two columns.
  static constexpr const char* kGap = "  ";

  // minWidths: of the columns in turn, for a table that is drawn again and again and is not to move; may be shorter.
  explicit Table(std::size_t textColumns, std::vector<std::size_t> minWidths = {})
      : m_textColumns(textColumns), m_minWidths(std::move(minWidths)) {}

  void Add(Row row) { m_rows.push_back(std::move(row)); }

  // The rows, their cells filled up to the widths of their columns.
  std::vector<Row> Aligned() const;

  // The same as text, a line for each row, without blanks at its end.
  std::string ToString() const;

 private:
  std::size_t m_textColumns;
  std::vector<std::size_t> m_minWidths;
  std::vector<Row> m_rows;
};

}  // namespace cli
