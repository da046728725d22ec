#include "feed/prices_file.h"

#include <gmock/gmock.h>

#include <fstream>

#include "test_support/temporary_directory.h"

namespace feed {
namespace {

using testing::HasSubstr;

const Symbol kDaily = *Symbol::Parse("SP500");

class PricesFileTest : public testing::Test {
 protected:
  std::string Write(const std::string& content) const {
    auto path = (m_directory.Path() / "prices.csv").string();
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }

  static void ExpectError(const std::string& path, const char* error) {
    EXPECT_THAT([&] { ReadPricesFile(path, kDaily); }, testing::ThrowsMessage<PricesFileError>(HasSubstr(error)));
  }

  const test_support::TemporaryDirectory m_directory;
};

TEST_F(PricesFileTest, ReadsTheFilesThatComeWithTheSystem) {
  const auto stocks = ReadPricesFile(PRICES_DIRECTORY "/stocks.csv", kDaily);
  EXPECT_EQ(stocks.symbols.size(), 5U);
  EXPECT_EQ(stocks.prices.size(), 560U);
  const auto daily = ReadPricesFile(PRICES_DIRECTORY "/sp500-2000.csv", kDaily);
  ASSERT_EQ(daily.symbols.size(), 1U);
  EXPECT_EQ(daily.symbols[0], kDaily);
  EXPECT_GT(daily.prices.size(), 5000U);
  EXPECT_EQ(daily.prices[0].price.ToString(), "1455.219971");
}

TEST_F(PricesFileTest, PutsPricesInTheOrderOfTheirDates) {
  const auto file = ReadPricesFile(Write("symbol,date,price\n"
                                         "MSFT,Jan 1 2000,39.81\nMSFT,Dec 31 2000,2\n"
                                         "IBM,Jan 1 2000,100.5\nIBM,Feb 29 2000,0\n"),
                                   kDaily);
  std::vector<std::string> replay;
  for (const auto& price : file.prices) {
    replay.push_back(std::string(file.symbols[price.symbol].View()) + ' ' + ToString(price.date) + ' ' +
                     price.price.ToString());
  }
  EXPECT_THAT(replay, testing::ElementsAre("MSFT 2000-01-01 39.81", "IBM 2000-01-01 100.50", "IBM 2000-02-29 0.00",
                                           "MSFT 2000-12-31 2.00"));
}

TEST_F(PricesFileTest, TakesFilesOfOtherSystems) {
  const auto file =
      ReadPricesFile(Write("\xef\xbb\xbfsymbol,date,price\r\nA,2000-01-03,1\r\n\r\nB,2000-01-04,2.5\r\n\r\n"), kDaily);
  EXPECT_EQ(file.prices.size(), 2U);
  EXPECT_EQ(ReadPricesFile(Write("symbol,date,price\nA,2000-01-03,1"), kDaily).prices.size(), 1U);
}

TEST_F(PricesFileTest, NamesFileAndLineOfWhatIsWrong) {
  const std::pair<const char*, const char*> cases[] = {
      {"", "prices.csv: the prices file is empty"},
      {"\n", "prices.csv:1: unknown header \"\""},
      {"time,price\n", "prices.csv:1: unknown header \"time,price\"; expected \"symbol,date,price\" or \"date,open,"},
      {"symbol,date,price\n\r\n", "prices.csv:2: no prices after the header"},
      {"symbol,date,price\nA,2000-01-03,1\nB,2000-01-03\n", "prices.csv:3: expected 3 fields, found 2"},
      {"symbol,date,price\nA B,2000-01-03,1\n", "prices.csv:2: bad symbol \"A B\""},
      {"symbol,date,price\nA,2000-02-30,1\n", "prices.csv:2: bad date \"2000-02-30\""},
      {"symbol,date,price\nA,Jan  2000,1\n", "prices.csv:2: bad date \"Jan  2000\""},
      {"symbol,date,price\nA,2000-01-03,1e5\n", "prices.csv:2: bad price \"1e5\""},
      {"date,open,high,low,close,adjclose,volume\n2000-01-03,1,2,3,null,5,6\n", "prices.csv:2: bad price \"null\""},
  };
  for (const auto& [content, error] : cases) {
    ExpectError(Write(content), error);
  }
}

TEST_F(PricesFileTest, SaysWhyAFileCannotBeRead) {
  ExpectError(m_directory.Path() / "absent", "absent: cannot read the prices file: No such file or directory");
  ExpectError(m_directory.Path(), "cannot read the prices file: Is a directory");
}

TEST(Price, KeepsEveryDigitAndDropsTrailingZeros) {
  for (const char* text : {"0.00", "0.000001", "39.81", "1469.25", "100.50", "999999999999.999999"}) {
    EXPECT_EQ(Price::Parse(text).value().ToString(), text);
  }
  EXPECT_EQ(Price::Parse("1469.250000").value().ToString(), "1469.25");
  EXPECT_EQ(Price::Parse("007").value().ToString(), "7.00");
  for (const char* text : {"", "-1", "+1", ".5", "1.", "nan", "1.1234567", "1234567890123"}) {
    EXPECT_FALSE(Price::Parse(text)) << text;
  }
}

}  // namespace
}  // namespace feed
