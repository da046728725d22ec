// What tells a context of this run from every other.
#pragma once

#include <cstdint>
#include <string>

namespace engine::transport {

// Random.
std::uint64_t NewInstance();

// An instance in digits, as operators read it.
std::string InstanceText(std::uint64_t instance);

}  // namespace engine::transport
