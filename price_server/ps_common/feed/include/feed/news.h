// What a price server sends on its news topic.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "feed/json_message.h"
#include "feed/utc_time.h"

#pragma GCC visibility push(default)

namespace feed {

struct News {
  UtcTime time{};
  std::string headline;
  std::string text;  // optional
};

bool operator==(const News& a, const News& b);

std::string Encode(const News& message);
std::optional<News> DecodeNews(std::string_view bytes) noexcept;

}  // namespace feed

#pragma GCC visibility pop
