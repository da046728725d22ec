#pragma once

#include <cstdint>
#include <string_view>

namespace engine::transport {

// FNV-1a: the same in every build.
constexpr std::uint64_t StableHash(std::string_view text) noexcept {
  std::uint64_t hash = 0xcbf29ce484222325;
  for (const char c : text) {
    hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
  }
  return hash;
}

}  // namespace engine::transport
