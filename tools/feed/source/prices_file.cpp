#include "feed/prices_file.h"

#include <algorithm>
#include <limits>
#include <map>
#include <string_view>
#include <system_error>
#include <utility>

#include "zq/posix/file.h"

namespace feed {
namespace {

struct Format {
  std::string_view header;
  int symbolColumn;  // -1: the file has none
  std::size_t dateColumn;
  std::size_t priceColumn;
};

constexpr Format kFormats[] = {
    {"symbol,date,price", 0, 1, 2},
    {"date,open,high,low,close,adjclose,volume", -1, 0, 4},
};

constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";

std::vector<std::string_view> SplitAtCommas(std::string_view line) {
  std::vector<std::string_view> fields;
  for (;;) {
    const auto comma = line.find(',');
    fields.push_back(line.substr(0, comma));
    if (comma == std::string_view::npos) {
      return fields;
    }
    line.remove_prefix(comma + 1);
  }
}

std::string Quoted(std::string_view text) { return '"' + std::string(text) + '"'; }

std::string TextOf(const std::string& path) {
  try {
    return zq::posix::ReadFile(path, std::numeric_limits<std::size_t>::max());
  } catch (const std::system_error& error) {
    throw PricesFileError(path + ": cannot read the prices file: " + error.code().message());
  }
}

class Reader {
 public:
  Reader(const std::filesystem::path& path, const Symbol& symbolOfDailyValues)
      : m_path(path.string()), m_text(TextOf(m_path)), m_rest(m_text), m_symbolOfDailyValues(symbolOfDailyValues) {
    if (m_text.empty()) {
      throw PricesFileError(m_path + ": the prices file is empty");
    }
  }

  PricesFile Read() {
    const Format& format = ReadHeader();
    while (NextLine()) {
      if (!m_line.empty()) {
        ReadRow(format);
      }
    }
    if (m_result.prices.empty()) {
      Fail("no prices after the header");
    }
    std::stable_sort(m_result.prices.begin(), m_result.prices.end(),
                     [](const RecordedPrice& a, const RecordedPrice& b) { return a.date < b.date; });
    return std::move(m_result);
  }

 private:
  bool NextLine() {
    if (m_rest.empty()) {
      return false;
    }
    const auto end = std::min(m_rest.find('\n'), m_rest.size());
    m_line = m_rest.substr(0, end);
    m_rest.remove_prefix(std::min(end + 1, m_rest.size()));
    ++m_lineNumber;
    if (m_line.ends_with('\r')) {
      m_line.remove_suffix(1);
    }
    return true;
  }

  const Format& ReadHeader() {
    NextLine();
    if (m_line.starts_with(kByteOrderMark)) {
      m_line.remove_prefix(kByteOrderMark.size());
    }
    for (const Format& format : kFormats) {
      if (m_line == format.header) {
        return format;
      }
    }
    Fail("unknown header " + Quoted(m_line) + "; expected " + Quoted(kFormats[0].header) + " or " +
         Quoted(kFormats[1].header));
  }

  void ReadRow(const Format& format) {
    const auto fields = SplitAtCommas(m_line);
    const auto columns = SplitAtCommas(format.header).size();
    if (fields.size() != columns) {
      Fail("expected " + std::to_string(columns) + " fields, found " + std::to_string(fields.size()));
    }
    auto symbol = m_symbolOfDailyValues;
    if (format.symbolColumn >= 0) {
      const auto text = fields[static_cast<std::size_t>(format.symbolColumn)];
      const auto parsed = Symbol::Parse(text);
      if (!parsed) {
        Fail("bad symbol " + Quoted(text) + "; expected 1 to " + std::to_string(Symbol::kMaxLength) +
             " visible characters");
      }
      symbol = *parsed;
    }
    const auto date = ParseDate(fields[format.dateColumn]);
    if (!date) {
      Fail("bad date " + Quoted(fields[format.dateColumn]) + "; expected 2000-01-31 or Jan 31 2000");
    }
    const auto price = Price::Parse(fields[format.priceColumn]);
    if (!price) {
      Fail("bad price " + Quoted(fields[format.priceColumn]) +
           "; expected a plain decimal number that is not negative, with at most " + std::to_string(Price::kDecimals) +
           " decimals");
    }
    m_result.prices.push_back({IndexOf(symbol), *date, *price});
  }

  std::uint32_t IndexOf(const Symbol& symbol) {
    const auto [found, isNew] =
        m_indexes.try_emplace(std::string(symbol.View()), static_cast<std::uint32_t>(m_result.symbols.size()));
    if (isNew) {
      m_result.symbols.push_back(symbol);
    }
    return found->second;
  }

  [[noreturn]] void Fail(const std::string& what) const {
    throw PricesFileError(m_path + ':' + std::to_string(m_lineNumber) + ": " + what);
  }

  const std::string m_path;
  const std::string m_text;
  std::string_view m_rest;  // of the text
  std::string_view m_line;  // without its end
  const Symbol m_symbolOfDailyValues;
  std::size_t m_lineNumber = 0;
  std::map<std::string, std::uint32_t> m_indexes;
  PricesFile m_result;
};

}  // namespace

PricesFile ReadPricesFile(const std::filesystem::path& path, const Symbol& symbolOfDailyValues) {
  return Reader(path, symbolOfDailyValues).Read();
}

}  // namespace feed
