// Server instances as users of the tools write them.
#pragma once

#include <string>
#include <string_view>

#include "ps_common/connector/server_instance.h"

namespace feed {

// Segments that a server instance may have.
constexpr unsigned kMaxSegments = 1024;

// 1 to 32 visible ASCII characters without blanks.
bool IsMarketName(std::string_view text);

// Reads "market:submarket:node" or "market:submarket:node:name". Throws cli::UsageError.
ps_ns::ServerInstance ParseServerInstance(const std::string& text);

}  // namespace feed
