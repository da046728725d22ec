// The live view as text for a terminal.
#pragma once

#include <string>

#include "snapshot.h"

namespace price_client {

struct ScreenSize {
  unsigned columns = 80;
  unsigned rows = 24;
};

// One frame that fills the screen from its top left corner and leaves nothing
// of the frame before. Lines are cut at the screen's width; symbols for which
// there is no room are counted in a last line.
std::string RenderFrame(const Snapshot& snapshot, ScreenSize size, bool colour);

}  // namespace price_client
