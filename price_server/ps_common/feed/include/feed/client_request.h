// What a price client asks a price server, as a request on the server's request topic.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "feed/json_message.h"
#include "feed/symbol.h"

#pragma GCC visibility push(default)

namespace feed {

// Values of ClientRequest::request.
constexpr std::string_view kProductsRequest = "products";  // the product named by symbol; all without one
constexpr std::string_view kStatusRequest = "status";

struct ClientRequest {
  std::uint64_t id = 0;          // the client's choice; comes back in the responses
  std::string request;           // any text: the server answers one that it does not know with an error
  std::optional<Symbol> symbol;  // optional
};

bool operator==(const ClientRequest& a, const ClientRequest& b);

std::string Encode(const ClientRequest& message);
std::optional<ClientRequest> DecodeClientRequest(std::string_view bytes) noexcept;

}  // namespace feed

#pragma GCC visibility pop
