// The live view of price_stat watch as text for a terminal, and the same as a block of text.
#pragma once

#include <string>
#include <vector>

#include "cli/frame.h"
#include "watch_lines.h"

namespace price_stat {

struct Picture {
  const View& view;
  Order order;
  bool paused;
  std::size_t top;  // the first line that is shown
  const std::vector<Line>& lines;
  std::size_t processes;
  std::string directory;
};

// One frame for a screen of at least 60 columns; columns for which there is no room are left out, the last ones first.
std::string RenderScreen(const Picture& picture, cli::ScreenSize size, bool colour);

// All lines and columns.
std::string RenderBlock(const Picture& picture);

}  // namespace price_stat
