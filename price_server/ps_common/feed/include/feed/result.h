// How the answers to requests and commands say how it went.
#pragma once

#include <string_view>

#pragma GCC visibility push(default)

namespace feed {

// The result of what was done as asked; every other result is an error text for people.
constexpr std::string_view kResultOk = "ok";

}  // namespace feed

#pragma GCC visibility pop
