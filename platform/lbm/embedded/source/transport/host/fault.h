// Thrown for what a peer got wrong. It ends the link to that peer.
#pragma once

#include <stdexcept>

namespace engine::transport::host {

class Fault : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// What faults of this process's own are told as.
inline constexpr const char* kOutOfMemory = "out of memory";

}  // namespace engine::transport::host
