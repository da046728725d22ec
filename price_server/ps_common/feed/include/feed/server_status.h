// What a price server sends on its status topic.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "feed/json_message.h"
#include "feed/utc_time.h"

#pragma GCC visibility push(default)

namespace feed {

enum class ServerState {
  kOpen,     // prices are being sent, or will be as soon as there is somebody to send to
  kClosing,  // the server ends in order; nothing more is sent
};

// "open", "closing".
std::string_view ToString(ServerState state);

struct ServerStatus {
  std::uint64_t session = 0;  // as in PriceMessage
  ServerState state = ServerState::kOpen;
  UtcTime time{};
  std::uint64_t updatesSent = 0;  // prices, over all segments
  std::chrono::seconds uptime{};
};

bool operator==(const ServerStatus& a, const ServerStatus& b);

std::string Encode(const ServerStatus& message);
std::optional<ServerStatus> DecodeServerStatus(std::string_view bytes) noexcept;

}  // namespace feed

#pragma GCC visibility pop
