// Prices files: what is read is whole and in order, and what is refused says where and why.
#include "feed/prices_file.h"

#include "harness/input.h"
#include "harness/input_file.h"
#include "harness/oracle.h"

namespace fuzz {
namespace {

void Read(Input& input) {
  static const InputFile file;
  const std::string& path = file.With(input.ConsumeRemainingBytesAsString());
  try {
    const feed::PricesFile prices = feed::ReadPricesFile(path, *feed::Symbol::Parse("SP500"));
    Require(!prices.prices.empty(), "a file has prices");
    for (const feed::RecordedPrice& price : prices.prices) {
      Require(price.symbol < prices.symbols.size() && !(price.date < prices.prices.front().date),
              "prices are in order");
      Require(feed::ParseDate(feed::ToString(price.date)) == price.date, "dates survive their text form");
      Require(feed::Price::Parse(price.price.ToString()) == price.price, "prices survive their text form");
    }
  } catch (const feed::PricesFileError& error) {
    Require(std::string_view(error.what()).starts_with(path + ":"), "a refusal names the file");
  }
}

}  // namespace
}  // namespace fuzz

FUZZ_WITH(fuzz::Read)
