// Thrown for what a peer got wrong. It ends the link to that peer.
#pragma once

#include <exception>
#include <new>
#include <stdexcept>

namespace engine::transport::host {

class Fault : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// What faults of this process's own are told as.
inline constexpr const char* kOutOfMemory = "out of memory";

// What is told of an error that ends a link, whosever fault it is.
inline const char* TextOf(const std::exception& error) noexcept {
  return dynamic_cast<const std::bad_alloc*>(&error) != nullptr ? kOutOfMemory : error.what();
}

}  // namespace engine::transport::host
