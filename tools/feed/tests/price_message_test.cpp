#include "feed/price_message.h"

#include <gtest/gtest.h>

#include <random>
#include <tuple>
#include <vector>

namespace feed {
namespace {

PriceMessage MakeMessage() {
  PriceMessage message;
  message.session = 0x1122334455667788;
  message.sequence = 42;
  message.sentAt = 1'700'000'000'123'456'789;
  message.segment = 7;
  message.symbol = *Symbol::Parse("MSFT");
  message.date = *ParseDate("2000-04-30");
  message.price = *Price::Parse("28.37");
  return message;
}

TEST(PriceMessage, ArrivesAsItWasSent) {
  const auto fields = [](const PriceMessage& m) {
    return std::tie(m.session, m.sequence, m.sentAt, m.segment, m.symbol, m.date, m.price);
  };
  auto message = MakeMessage();
  for (const char* symbol : {"A", "MSFT", "TWENTY-CHARACTERS-XX"}) {
    message.symbol = Symbol::Parse(symbol).value();
    const auto arrived = DecodePriceMessage(Encode(message));
    ASSERT_TRUE(arrived.has_value());
    EXPECT_TRUE(fields(*arrived) == fields(message)) << symbol;
  }
}

TEST(PriceMessage, TakesNoOtherLength) {
  const auto bytes = Encode(MakeMessage());
  std::vector<std::byte> longer(bytes.begin(), bytes.end());
  longer.push_back(std::byte{0});
  EXPECT_FALSE(DecodePriceMessage(longer));
  for (std::size_t length = 0; length < bytes.size(); ++length) {
    EXPECT_FALSE(DecodePriceMessage(std::span(bytes).first(length))) << length;
  }
}

TEST(PriceMessage, RefusesFieldsThatNoServerSends) {
  constexpr struct {
    const char* what;
    std::size_t offset;
    int value;
  } kCases[] = {
      {"symbol length 0", 6, 0},       {"symbol length past the end", 6, 21}, {"negative price", 39, 0x80},
      {"date that is none", 43, 0xff}, {"escape in symbol", 44, 0x1b},        {"8-bit symbol", 45, 0xe9},
  };
  for (const auto& [what, offset, value] : kCases) {
    auto bytes = Encode(MakeMessage());
    bytes[offset] = static_cast<std::byte>(value);
    EXPECT_FALSE(DecodePriceMessage(bytes)) << what;
  }
  for (auto field : {&PriceMessage::session, &PriceMessage::sequence}) {
    auto message = MakeMessage();
    message.*field = 0;
    EXPECT_FALSE(DecodePriceMessage(Encode(message)));
  }
}

// Whatever is accepted is a message that a server could have sent: it is encoded to the same bytes again.
TEST(PriceMessage, AcceptsOnlyWhatEncodesToTheSameBytes) {
  std::mt19937 random(1);
  int accepted = 0;
  for (int i = 0; i < 100'000; ++i) {
    auto bytes = Encode(MakeMessage());
    for (auto flips = random() % 3; flips > 0; --flips) {
      bytes[random() % bytes.size()] ^= std::byte{1} << random() % 8;
    }
    if (const auto message = DecodePriceMessage(bytes)) {
      ++accepted;
      ASSERT_EQ(Encode(*message), bytes);
    }
  }
  EXPECT_GT(accepted, 1000);
}

}  // namespace
}  // namespace feed
