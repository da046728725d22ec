// The id that this tool's log statements carry.
#pragma once

namespace price_server {

constexpr unsigned int kServerStatement = 200;

}  // namespace price_server
