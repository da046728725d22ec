// How a statement becomes a line.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string_view>

#include <spdlog/fmt/fmt.h>

#include "zq/logging/default_backend.h"
#include "zq/logging/log_level.h"
#include "zq/logging/source.h"

namespace zq::logging {

struct Statement {
  std::chrono::system_clock::time_point time;
  LogLevel level;
  unsigned int id;
  const Source* source;  // may be null
  const char* filename;  // may be null
  int line;
  std::string_view text;
  pid_t threadId;
  std::string_view threadName;
};

using LineBuffer = fmt::memory_buffer;

// Appends the statement to buffer as exactly one line, its end included.
void FormatLine(LineBuffer& buffer, const Statement& statement, LineFormat format);

// The line for readers who note the time themselves. JSON stays as it is.
std::string_view WithoutTime(std::string_view line);

}  // namespace zq::logging
