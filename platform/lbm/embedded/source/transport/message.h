// Bytes of messages, and how many a message may have.
#pragma once

#include <cstddef>
#include <span>

namespace engine::transport {

using Bytes = std::span<const std::byte>;

inline constexpr std::size_t kNameMax = 4096;                       // bytes of a topic or of a context's name
inline constexpr std::size_t kMessageMax = std::size_t{256} << 20;  // bytes of a message, all fragments together

}  // namespace engine::transport
