// Text in lines of a width.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

namespace cli {

// The words of the text in lines of at most so many bytes, longer ones where a word is longer. No line end at the end.
inline std::string Wrapped(std::string_view text, std::size_t width) {
  std::string lines;
  std::size_t column = 0;
  while (!text.empty()) {
    const auto word = text.substr(0, text.find(' '));
    text.remove_prefix(std::min(text.size(), word.size() + 1));
    if (column > 0) {
      const bool fits = column + 1 + word.size() <= width;
      lines += fits ? ' ' : '\n';
      column = fits ? column + 1 : 0;
    }
    lines += word;
    column += word.size();
  }
  return lines;
}

}  // namespace cli
