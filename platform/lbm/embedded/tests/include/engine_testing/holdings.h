#pragma once

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <string>

namespace engine::transport::host {

// What this process has open and mapped for its contexts.
struct Holdings {
  std::size_t descriptors = 0;
  std::size_t mappings = 0;
  bool operator==(const Holdings&) const = default;

  static Holdings Now() {
    Holdings held;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      ++held.descriptors;
    }
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
      held.mappings += line.find("memfd:lbm_") != std::string::npos ? 1 : 0;
    }
    return held;
  }
};

}  // namespace engine::transport::host
