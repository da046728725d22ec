#include "feed/price_message.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <tuple>

namespace feed {
namespace {

std::string BytesOf(const PriceMessage& message) {
  const auto bytes = Encode(message);
  return {bytes.begin(), bytes.end()};
}

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
    const auto arrived = DecodePriceMessage(BytesOf(message));
    ASSERT_TRUE(arrived.has_value());
    EXPECT_TRUE(fields(*arrived) == fields(message)) << symbol;
  }
}

TEST(PriceMessage, TakesNoOtherLength) {
  const auto bytes = BytesOf(MakeMessage());
  EXPECT_FALSE(DecodePriceMessage(bytes + '\0'));
  for (std::size_t length = 0; length < bytes.size(); ++length) {
    EXPECT_FALSE(DecodePriceMessage(bytes.substr(0, length))) << length;
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
    auto bytes = BytesOf(MakeMessage());
    bytes[offset] = static_cast<char>(value);
    EXPECT_FALSE(DecodePriceMessage(bytes)) << what;
  }
  for (auto field : {&PriceMessage::session, &PriceMessage::sequence}) {
    auto message = MakeMessage();
    message.*field = 0;
    EXPECT_FALSE(DecodePriceMessage(BytesOf(message)));
  }
}

// Whatever is accepted is a message that a server could have sent: it is encoded to the same bytes again.
TEST(PriceMessage, AcceptsOnlyWhatEncodesToTheSameBytes) {
  std::mt19937 random(1);
  int accepted = 0;
  for (int i = 0; i < 100'000; ++i) {
    auto bytes = BytesOf(MakeMessage());
    for (auto flips = random() % 3; flips > 0; --flips) {
      bytes[random() % bytes.size()] ^= static_cast<char>(1U << random() % 8);
    }
    if (const auto message = DecodePriceMessage(bytes)) {
      ++accepted;
      ASSERT_EQ(BytesOf(*message), bytes);
    }
  }
  EXPECT_GT(accepted, 1000);
}

}  // namespace
}  // namespace feed
