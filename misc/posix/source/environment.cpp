#include "zq/posix/environment.h"

#include <cstdlib>

namespace zq::posix {

std::string Environment(const char* name) {
  const char* const value = std::getenv(name);
  return value != nullptr ? value : "";
}

}  // namespace zq::posix
