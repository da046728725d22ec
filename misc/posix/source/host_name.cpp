#include "zq/posix/host_name.h"

#include <unistd.h>

#include <array>

namespace zq::posix {

std::string HostName() {
  std::array<char, 256> name{};
  return ::gethostname(name.data(), name.size() - 1) == 0 && name[0] != '\0' ? name.data() : "localhost";
}

}  // namespace zq::posix
