#include "transport/instance.h"

#include <array>
#include <charconv>
#include <random>

namespace engine::transport {

std::uint64_t NewInstance() {
  std::random_device device;
  return (std::uint64_t{device()} << 32) | device();
}

std::string InstanceText(std::uint64_t instance) {
  std::array<char, 16> digits;
  return {digits.data(), std::to_chars(digits.begin(), digits.end(), instance, 16).ptr};
}

}  // namespace engine::transport
