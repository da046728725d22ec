// What a price server sends on its RFQ topic: somebody asks the market for a price.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "feed/json_message.h"
#include "feed/symbol.h"
#include "feed/utc_time.h"

#pragma GCC visibility push(default)

namespace feed {

struct RequestForQuote {
  std::uint64_t id = 0;  // 1, 2, 3, ... for each run of the server
  UtcTime time{};
  Symbol symbol;
  std::uint64_t quantity = 0;
};

bool operator==(const RequestForQuote& a, const RequestForQuote& b);

// message must have a symbol.
std::string Encode(const RequestForQuote& message);
std::optional<RequestForQuote> DecodeRequestForQuote(std::string_view bytes) noexcept;

}  // namespace feed

#pragma GCC visibility pop
