// Reading an option's text.
#pragma once

#include <array>
#include <cstddef>
#include <string>

#include "lbm/errors.h"

namespace lbm::details {

// The text that get(buffer, &length) writes, up to its first zero character; LbmError with msg when get fails. The
// buffer keeps one zero that get does not know of.
template <class Get>
std::string ReadTextOption(Get get, const char* msg) {
  std::array<char, 1024> buffer{};
  std::size_t length = buffer.size() - 1;
  ThrowIfFailed(get(buffer.data(), &length), msg);
  return buffer.data();
}

}  // namespace lbm::details
