// Prices files: the recorded prices that a price server replays.
#pragma once

#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "feed/date.h"
#include "feed/price.h"
#include "feed/symbol.h"

namespace feed {

// The text names the file, and the line when one is to blame.
class PricesFileError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct RecordedPrice {
  std::uint32_t symbol = 0;  // index in PricesFile::symbols
  Date date{};
  Price price;
};

struct PricesFile {
  std::vector<Symbol> symbols;        // in the order of their first rows in the file; at least one
  std::vector<RecordedPrice> prices;  // by date, rows of one date in the file's order; at least one
};

// Reads comma-separated values with one of two headers, told apart by it:
//
//   symbol,date,price                           many symbols
//   date,open,high,low,close,adjclose,volume    one symbol, the one given here; its price is the column close
//
// Lines end in LF or CRLF; empty lines are skipped. Throws PricesFileError for a file that cannot be read, another
// header, a bad row, and a file without rows.
PricesFile ReadPricesFile(const std::filesystem::path& path, const Symbol& symbolOfDailyValues);

}  // namespace feed
