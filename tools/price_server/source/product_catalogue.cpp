#include "product_catalogue.h"

namespace price_server {

ProductCatalogue::ProductCatalogue(const feed::PricesFile& file, unsigned short segments, const Progress& progress)
    : m_progress(progress), m_segments(segments), m_products(file.symbols.size()) {
  for (std::uint32_t product = 0; product < Size(); ++product) {
    m_products[product].symbol = file.symbols[product];
    m_products[product].segment = SegmentOf(product);
    m_bySymbol.emplace(m_products[product].symbol.View(), product);
  }
  for (const auto& price : file.prices) {
    auto& product = m_products[price.symbol];
    if (product.prices++ == 0) {
      product.firstDate = price.date;
    }
    product.lastDate = price.date;
  }
}

feed::ProductInfo ProductCatalogue::At(std::uint32_t product) const {
  auto info = m_products[product];
  info.lastPrice = m_progress.LastPrice(product);
  return info;
}

std::optional<std::uint32_t> ProductCatalogue::Find(const feed::Symbol& symbol) const {
  const auto found = m_bySymbol.find(symbol.View());
  return found == m_bySymbol.end() ? std::nullopt : std::optional(found->second);
}

}  // namespace price_server
