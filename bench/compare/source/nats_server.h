// The NATS server of a run, which whoever starts the programs has started.
#pragma once

#include <sys/types.h>

#include <stdexcept>
#include <string>

#include "zq/posix/environment.h"

namespace compare {

// Its URL.
inline std::string NatsServer() {
  std::string url = zq::posix::Environment("COMPARE_NATS_SERVER");
  if (url.empty()) {
    throw std::runtime_error("COMPARE_NATS_SERVER does not name a NATS server; for example nats://127.0.0.1:4222");
  }
  return url;
}

// Its process, 0 when that is not told.
inline pid_t NatsServerProcess() {
  const std::string process = zq::posix::Environment("COMPARE_NATS_SERVER_PROCESS");
  return process.empty() ? 0 : std::stoi(process);
}

}  // namespace compare
