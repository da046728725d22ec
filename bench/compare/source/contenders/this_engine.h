// What the contenders that are this engine have in common.
#pragma once

#include <lbm/lbm.h>

#include <cstdlib>

#include "contender.h"

namespace compare {

template <class EngineNode>
Contender ThisEngine(const std::filesystem::path& directory) {
  ::setenv("LBM_RUNTIME_DIR", directory.c_str(), 1);
  return {.version = lbm_version(),
          .transport = "its own, default options",
          .pacing = "transport_pacing receiver: a send waits for room",
          .pinned = true,
          .makeNode = [](const NodeSetup& setup) { return std::make_unique<EngineNode>(setup); }};
}

}  // namespace compare
