// Environment variables.
#pragma once

#include <string>

namespace zq::posix {

// The variable's value; empty when it is not set. No variable of this project means anything by being set and empty.
// Threads: any, while none changes the environment.
std::string Environment(const char* name);

}  // namespace zq::posix
