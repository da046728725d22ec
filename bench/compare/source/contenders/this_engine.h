// What the contenders that are this engine have in common.
#pragma once

#include <lbm/lbm.h>

#include "contender.h"
#include "engine_transport.h"

// What the build says of a contender that does not take the engine's default.
#ifndef COMPARE_TRANSPORT
#define COMPARE_TRANSPORT "host"
#endif

namespace compare {

template <class EngineNode>
Contender ThisEngine(const std::filesystem::path& directory) {
  const std::string transport = COMPARE_TRANSPORT;
  UseTransport(directory, transport);
  return {.version = lbm_version(),
          .transport = transport == "host" ? "its own, default options" : "its own, option transport " + transport,
          .pacing = "transport_pacing receiver: a send waits for room",
          .pinned = transport != "nats",
          .makeNode = [](const NodeSetup& setup) { return std::make_unique<EngineNode>(setup); }};
}

}  // namespace compare
