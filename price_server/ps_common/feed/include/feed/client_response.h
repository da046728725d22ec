// What a price server responds to a client's request.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "feed/json_message.h"
#include "feed/product_info.h"
#include "feed/result.h"
#include "feed/server_status.h"

#pragma GCC visibility push(default)

namespace feed {

struct ClientResponse {
  static constexpr std::size_t kMaxProducts = 100;

  std::uint64_t id = 0;                // of the request; 0 when that was not readable
  std::string result;                  // kResultOk or an error text
  bool isLast = true;                  // false: more responses to the same request follow
  std::vector<ProductInfo> products;   // at most kMaxProducts; optional
  std::optional<ServerStatus> status;  // optional
};

bool operator==(const ClientResponse& a, const ClientResponse& b);

std::string Encode(const ClientResponse& message);
std::optional<ClientResponse> DecodeClientResponse(std::string_view bytes) noexcept;

}  // namespace feed

#pragma GCC visibility pop
