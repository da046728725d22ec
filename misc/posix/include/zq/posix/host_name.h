// The machine's name.
#pragma once

#include <string>

namespace zq::posix {

// As the system has it; "localhost" when it has none.
std::string HostName();

}  // namespace zq::posix
