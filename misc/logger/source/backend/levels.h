#pragma once

#include <string_view>

#include "zq/logging/log_level.h"

namespace zq::logging {

// Without "ZQLOG_"; empty for a level that has no name.
std::string_view LevelName(LogLevel level);

}  // namespace zq::logging
