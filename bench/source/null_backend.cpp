// A log back end that takes statements and forgets them.
#include <benchmark/benchmark.h>

#include "zq/logging/logger.h"

namespace zq::logging {

int g_minLogLevel = ZQLOG_INFO;

void LogMessage(LogLevel, unsigned int, DecodeType, const std::shared_ptr<const Source>&, const char*, int,
                std::string text, const std::string&) {
  benchmark::DoNotOptimize(text);
}

void FormatAndLogMessage(LogLevel, unsigned int, DecodeType, const std::shared_ptr<const Source>&, const char*, int,
                         const char*, ...) {}

void ForceLockHandlers() {}

}  // namespace zq::logging
