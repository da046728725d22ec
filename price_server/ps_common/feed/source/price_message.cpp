#include "feed/price_message.h"

#include <time.h>

#include <algorithm>
#include <bit>
#include <cstring>

namespace feed {
namespace {

static_assert(std::endian::native == std::endian::little, "the encoded form is copied without a change of byte order");

constexpr std::size_t kSegmentAt = 4;
constexpr std::size_t kSymbolLengthAt = 6;
constexpr std::size_t kReservedAt = 7;
constexpr std::size_t kSessionAt = 8;
constexpr std::size_t kSequenceAt = 16;
constexpr std::size_t kSentAtAt = 24;
constexpr std::size_t kPriceAt = 32;
constexpr std::size_t kDateAt = 40;
constexpr std::size_t kSymbolAt = 44;
static_assert(kSymbolAt + Symbol::kMaxLength == kPriceMessageSize);

template <typename T>
void Put(EncodedPriceMessage& to, std::size_t offset, T value) {
  std::memcpy(to.data() + offset, &value, sizeof value);
}

template <typename T>
T Take(std::string_view from, std::size_t offset) {
  T value;
  std::memcpy(&value, from.data() + offset, sizeof value);
  return value;
}

}  // namespace

EncodedPriceMessage Encode(const PriceMessage& message) noexcept {
  EncodedPriceMessage bytes{};
  const auto symbol = message.symbol.View();
  Put(bytes, 0, kPriceMessageMagic);
  Put(bytes, kSegmentAt, message.segment);
  Put(bytes, kSymbolLengthAt, static_cast<std::uint8_t>(symbol.size()));
  Put(bytes, kSessionAt, message.session);
  Put(bytes, kSequenceAt, message.sequence);
  Put(bytes, kSentAtAt, message.sentAt);
  Put(bytes, kPriceAt, message.price.Units());
  Put(bytes, kDateAt, ToNumber(message.date));
  std::memcpy(bytes.data() + kSymbolAt, symbol.data(), symbol.size());
  return bytes;
}

std::optional<PriceMessage> DecodePriceMessage(std::string_view bytes) noexcept {
  if (bytes.size() != kPriceMessageSize || Take<std::uint32_t>(bytes, 0) != kPriceMessageMagic ||
      Take<std::uint8_t>(bytes, kReservedAt) != 0) {
    return std::nullopt;
  }
  const std::size_t symbolLength = Take<std::uint8_t>(bytes, kSymbolLengthAt);
  if (symbolLength > Symbol::kMaxLength) {
    return std::nullopt;
  }
  std::array<char, Symbol::kMaxLength> text;
  std::memcpy(text.data(), bytes.data() + kSymbolAt, text.size());
  const auto textEnd = text.begin() + static_cast<std::ptrdiff_t>(symbolLength);
  const auto symbol = Symbol::Parse({text.data(), symbolLength});
  const auto date = DateFromNumber(Take<std::int32_t>(bytes, kDateAt));
  if (!symbol || !date || !std::all_of(textEnd, text.end(), [](char c) { return c == 0; })) {
    return std::nullopt;
  }
  PriceMessage message;
  message.session = Take<std::uint64_t>(bytes, kSessionAt);
  message.sequence = Take<std::uint64_t>(bytes, kSequenceAt);
  message.sentAt = Take<std::int64_t>(bytes, kSentAtAt);
  message.segment = Take<std::uint16_t>(bytes, kSegmentAt);
  message.symbol = *symbol;
  message.date = *date;
  message.price = Price(Take<std::int64_t>(bytes, kPriceAt));
  if (message.session == 0 || message.sequence == 0 || message.price < Price()) {
    return std::nullopt;
  }
  return message;
}

std::int64_t RealTimeNanoseconds() noexcept {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

}  // namespace feed
