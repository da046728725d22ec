// The NATS server of a run, which whoever starts the programs has started.
#pragma once

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

}  // namespace compare
