#include "instance_notices.h"

#include <algorithm>

namespace price_client {

void InstanceNotices::TakeProduct(std::string_view bytes) {
  const auto product = feed::DecodeProductInfo(bytes);
  if (!product) {
    return CountMalformed();
  }
  Keep(*product);
}

void InstanceNotices::TakeRfq(std::string_view bytes) {
  const auto rfq = feed::DecodeRequestForQuote(bytes);
  if (!rfq) {
    return CountMalformed();
  }
  ++m_notices.rfqs;
  m_notices.lastRfq = rfq;
}

void InstanceNotices::TakeNews(std::string_view bytes) {
  auto news = feed::DecodeNews(bytes);
  if (!news) {
    return CountMalformed();
  }
  ++m_notices.news;
  m_notices.lastNews = std::move(news);
}

void InstanceNotices::TakeResponse(const feed::ClientResponse& response) {
  for (const auto& product : response.products) {
    Keep(product);
  }
}

void InstanceNotices::Keep(const feed::ProductInfo& product) {
  auto& products = m_notices.products;
  const auto known = std::find_if(products.begin(), products.end(),
                                  [&](const feed::ProductInfo& other) { return other.symbol == product.symbol; });
  if (known != products.end()) {
    *known = product;
  } else if (products.size() < kMaxProducts) {
    products.push_back(product);
  }
}

}  // namespace price_client
