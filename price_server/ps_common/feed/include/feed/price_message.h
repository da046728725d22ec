// What a price server sends on its segment topics: one message for each price.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "feed/date.h"
#include "feed/price.h"
#include "feed/symbol.h"

#pragma GCC visibility push(default)

namespace feed {

struct PriceMessage {
  std::uint64_t session = 0;   // names one run of the server; a later run of the instance has a greater one
  std::uint64_t sequence = 0;  // 1, 2, 3, ... for each segment of a session
  std::int64_t sentAt = 0;     // nanoseconds since the epoch (CLOCK_REALTIME), taken just before the send
  std::uint16_t segment = 0;
  Symbol symbol;
  Date date{};
  Price price;
};

// The encoded form, integers little-endian:
//
//   0  uint32  kPriceMessageMagic, which names kind and version
//   4  uint16  segment
//   6  uint8   length of the symbol
//   7  uint8   0
//   8  uint64  session
//  16  uint64  sequence
//  24  int64   sentAt
//  32  int64   price in millionths
//  40  int32   date as year * 10000 + month * 100 + day
//  44  char[20] symbol, filled up with zero bytes
constexpr std::size_t kPriceMessageSize = 64;
constexpr std::uint32_t kPriceMessageMagic = 0x31435250;  // "PRC1"

using EncodedPriceMessage = std::array<char, kPriceMessageSize>;

// message must have a symbol and a valid date.
EncodedPriceMessage Encode(const PriceMessage& message) noexcept;

// Takes any bytes whatever; nothing unless they are what Encode gives for a message with a symbol, a valid date, a
// price that is not negative, and a session and sequence above 0. Allocates nothing.
std::optional<PriceMessage> DecodePriceMessage(std::string_view bytes) noexcept;

// The present moment as PriceMessage::sentAt counts it.
std::int64_t RealTimeNanoseconds() noexcept;

}  // namespace feed

#pragma GCC visibility pop
