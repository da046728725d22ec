// The messages of a process that publishes without end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace engine::transport::host {

// Small, so that it is full all the time.
inline constexpr std::size_t kFloodRingBytes = std::size_t{64} << 10;

// The number and so many bytes made from it, now and then more than fit in one frame of the ring or in all of it.
inline std::string FloodMessage(std::uint32_t number) {
  std::size_t size = sizeof(number) + number * 7919U % 3000U;
  if (number % 50 == 0) {
    size += number % 100 == 0 ? kFloodRingBytes / 4 : kFloodRingBytes * 2;
  }
  std::string content(size, static_cast<char>(number * 31));
  std::memcpy(content.data(), &number, sizeof(number));
  return content;
}

}  // namespace engine::transport::host
