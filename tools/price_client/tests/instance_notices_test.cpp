#include "instance_notices.h"

#include <gtest/gtest.h>

#include <string>

namespace price_client {
namespace {

feed::ProductInfo Product(const std::string& symbol, std::uint64_t prices) {
  feed::ProductInfo product;
  product.symbol = feed::Symbol::Parse(symbol).value();
  product.firstDate = product.lastDate = feed::ParseDate("2000-01-31").value();
  product.prices = prices;
  return product;
}

TEST(InstanceNotices, KeepsTheLatestOfEachProductFromWhereverItCame) {
  InstanceNotices notices;
  notices.TakeProduct(feed::Encode(Product("MSFT", 1)));
  feed::ClientResponse response;
  response.products = {Product("IBM", 2), Product("MSFT", 3)};
  notices.TakeResponse(response);
  const auto& products = notices.Read().products;
  ASSERT_EQ(products.size(), 2U);
  EXPECT_EQ(products[0], Product("MSFT", 3));
  EXPECT_EQ(products[1], Product("IBM", 2));
}

TEST(InstanceNotices, AFloodOfProductsIsBounded) {
  InstanceNotices notices;
  feed::ClientResponse response;
  for (std::size_t i = 0; i < InstanceNotices::kMaxProducts + 10; ++i) {
    response.products.push_back(Product('S' + std::to_string(i), 1));
  }
  notices.TakeResponse(response);
  EXPECT_EQ(notices.Read().products.size(), InstanceNotices::kMaxProducts);
}

TEST(InstanceNotices, WhatIsNotWhatItsTopicCarriesIsMalformed) {
  const auto product = feed::Encode(Product("MSFT", 1));
  const auto news = feed::Encode(feed::News{feed::UtcNow(), "Rates rise", ""});
  InstanceNotices notices;
  notices.TakeProduct(news);
  notices.TakeRfq(product);
  notices.TakeNews("hello");
  EXPECT_EQ(notices.Read().malformed, 3U);
  EXPECT_EQ(notices.Read().rfqs + notices.Read().news + notices.Read().products.size(), 0U);
  notices.TakeNews(news);
  EXPECT_EQ(notices.Read().news, 1U);
  EXPECT_EQ(notices.Read().lastNews->headline, "Rates rise");
  EXPECT_EQ(notices.Read().malformed, 3U);
}

}  // namespace
}  // namespace price_client
