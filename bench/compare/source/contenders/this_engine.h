// What the contenders that are this engine have in common.
#pragma once

#include <lbm/lbm.h>

#include "contender.h"
#include "engine_transport.h"

// What the build says of a contender that does not take the engine's defaults: the option "transport", or another one
// of contexts with its value.
#ifndef COMPARE_TRANSPORT
#define COMPARE_TRANSPORT "host"
#endif
#ifndef COMPARE_OPTION
#define COMPARE_OPTION ""
#endif

namespace compare {

template <class EngineNode>
Contender ThisEngine(const std::filesystem::path& directory) {
  const std::string transport = COMPARE_TRANSPORT;
  const std::string special = transport == "host" ? COMPARE_OPTION : "transport " + transport;
  UseTransport(directory, transport, transport == "host" && !special.empty() ? "context " + special + "\n" : "");
  return {.version = lbm_version(),
          .transport = "its own, " + (special.empty() ? "default options" : "option " + special),
          .pacing = "transport_pacing receiver: a send waits for room",
          .pinned = transport != "nats",
          .makeNode = [](const NodeSetup& setup) { return std::make_unique<EngineNode>(setup); }};
}

}  // namespace compare
