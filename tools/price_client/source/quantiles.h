// The quantiles of the latency that are told wherever there is room for all.
#pragma once

#include <array>

namespace price_client {

struct NamedQuantile {
  const char* heading;
  const char* key;  // in JSON
  double fraction;
};
constexpr std::array<NamedQuantile, 4> kQuantiles{{
    {"p50", "p50", 0.5},
    {"p90", "p90", 0.9},
    {"p99", "p99", 0.99},
    {"p99.9", "p99_9", 0.999},
}};

}  // namespace price_client
