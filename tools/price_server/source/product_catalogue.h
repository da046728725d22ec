// The products of a server instance.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "feed/prices_file.h"
#include "feed/product_info.h"
#include "progress.h"

namespace price_server {

// One product for each symbol of the prices file, numbered as there. Both file and progress have to outlive it.
//
// Threads: any.
class ProductCatalogue {
 public:
  ProductCatalogue(const feed::PricesFile& file, unsigned short segments, const Progress& progress);

  std::uint32_t Size() const { return static_cast<std::uint32_t>(m_products.size()); }

  // Products go to the segments in turn.
  unsigned short SegmentOf(std::uint32_t product) const { return static_cast<unsigned short>(product % m_segments); }

  // As of now.
  feed::ProductInfo At(std::uint32_t product) const;

  std::optional<std::uint32_t> Find(const feed::Symbol& symbol) const;

 private:
  const Progress& m_progress;
  unsigned short m_segments;
  std::vector<feed::ProductInfo> m_products;                       // without last prices
  std::unordered_map<std::string_view, std::uint32_t> m_bySymbol;  // keys are texts of m_products
};

}  // namespace price_server
