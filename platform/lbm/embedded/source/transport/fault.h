// What a peer did wrong.
#pragma once

#include <exception>
#include <new>
#include <stdexcept>

namespace engine::transport {

// Thrown for a violation of the protocol. It ends the link to that peer and nothing else.
class Fault : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

inline constexpr const char* kOutOfMemory = "out of memory";

// What operators are told of an error that ends a link, whichever side is at fault.
inline const char* TextOf(const std::exception& error) noexcept {
  return dynamic_cast<const std::bad_alloc*>(&error) != nullptr ? kOutOfMemory : error.what();
}

}  // namespace engine::transport
