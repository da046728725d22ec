// How this engine's contexts meet.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "nats_server.h"

namespace compare {

// For this process and those forked from it, before its first use of the engine. directory: an empty one. transport: a
// value of the context option; with nats in it the run's server carries the messages. others: further lines of the
// configuration file.
inline void UseTransport(const std::filesystem::path& directory, const std::string& transport,
                         const std::string& others = {}) {
  ::setenv("LBM_RUNTIME_DIR", directory.c_str(), 1);
  std::string lines = others;
  if (transport != "host") {
    lines += "context transport " + transport + "\ncontext nats_servers " + NatsServer() + '\n';
  }
  if (lines.empty()) {
    return;
  }
  const std::string file = directory / "lbm.cfg";
  std::ofstream options(file);
  options << lines;
  options.close();
  if (!options) {
    throw std::runtime_error("cannot write " + file);
  }
  ::setenv("LBM_CONFIG_FILE", file.c_str(), 1);
}

}  // namespace compare
