// The live view as text for a terminal.
#pragma once

#include <string>

#include "cli/frame.h"
#include "snapshot.h"

namespace price_client {

// One frame that fills the screen from its top left corner and leaves nothing
// of the frame before. Lines are cut at the screen's width; symbols for which
// there is no room are counted in a last line.
std::string RenderFrame(const Snapshot& snapshot, cli::ScreenSize size, bool colour);

}  // namespace price_client
