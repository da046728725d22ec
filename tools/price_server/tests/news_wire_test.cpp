#include "news_wire.h"

#include <gtest/gtest.h>

namespace price_server {
namespace {

feed::RecordedPrice Row(std::uint32_t symbol, const char* date, const char* price) {
  return {symbol, *feed::ParseDate(date), *feed::Price::Parse(price)};
}

TEST(NewsWire, TellsTheGreatestMovesFirstAndThenStartsOver) {
  feed::PricesFile file;
  file.symbols = {*feed::Symbol::Parse("A"), *feed::Symbol::Parse("B")};
  file.prices = {Row(0, "2000-01-03", "100"),  Row(1, "2000-01-03", "10"),  Row(0, "2000-01-04", "100"),
                 Row(1, "2000-01-04", "5"),    Row(0, "2000-01-05", "101"), Row(1, "2000-01-05", "0"),
                 Row(1, "2000-01-06", "1000"), Row(1, "2000-01-07", "1800")};
  NewsWire wire(file);
  const char* const expected[] = {
      "B down 100.0% to 0.00 on 2000-01-05",
      "B up 80.0% to 1800.00 on 2000-01-07",
      "B down 50.0% to 5.00 on 2000-01-04",
      "A up 1.0% to 101.00 on 2000-01-05",
  };
  for (int round = 0; round < 2; ++round) {
    for (const auto* headline : expected) {
      EXPECT_EQ(wire.Next().value().headline, headline);
    }
  }
  EXPECT_EQ(wire.Next()->text, "B was at 5.00 on 2000-01-04.");
}

TEST(NewsWire, HasNothingToSayAboutPricesThatStayTheSame) {
  feed::PricesFile file;
  file.symbols = {*feed::Symbol::Parse("A")};
  file.prices = {Row(0, "2000-01-03", "1"), Row(0, "2000-01-04", "1")};
  EXPECT_FALSE(NewsWire(file).Next());
}

}  // namespace
}  // namespace price_server
