// Environment variables.
#pragma once

#include <string>

namespace zq::posix {

// The variable's value; empty when it is not set, as for most variables being set and empty means the same.
// Threads: any, while none changes the environment.
std::string Environment(const char* name);

}  // namespace zq::posix
