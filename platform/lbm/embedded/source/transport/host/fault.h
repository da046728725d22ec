// Thrown for what a peer got wrong. It ends the link to that peer.
#pragma once

#include <stdexcept>

namespace engine::transport::host {

class Fault : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace engine::transport::host
