// What a price server sends on its product topic: one message for each product.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "feed/date.h"
#include "feed/json_message.h"
#include "feed/price.h"
#include "feed/symbol.h"

#pragma GCC visibility push(default)

namespace feed {

struct ProductInfo {
  Symbol symbol;
  std::uint16_t segment = 0;       // the one on which the product's prices are sent
  Date firstDate{};                // of the recorded prices
  Date lastDate{};                 // of the recorded prices
  std::uint64_t prices = 0;        // recorded
  std::optional<Price> lastPrice;  // the latest one sent; none before the first. Optional
};

bool operator==(const ProductInfo& a, const ProductInfo& b);

// message must have a symbol and valid dates.
std::string Encode(const ProductInfo& message);
std::optional<ProductInfo> DecodeProductInfo(std::string_view bytes) noexcept;

}  // namespace feed

#pragma GCC visibility pop
