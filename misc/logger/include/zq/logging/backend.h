// What a log back end provides: these three functions and g_minLogLevel. An application that defines all four has its
// own back end and does not link ours.
#pragma once

#include <memory>
#include <string>

#include "zq/logging/log_level.h"
#include "zq/logging/source.h"

#pragma GCC visibility push(default)

namespace zq::logging {

// Takes one finished statement. handlerName chooses a handler of the back end; empty means the default. filename is
// valid during the call. Threads: any, at the same time, also while static and thread_local objects are destroyed.
void LogMessage(LogLevel level, unsigned int id, DecodeType decodeType, const std::shared_ptr<const Source>& source,
                const char* filename, int line, std::string text, const std::string& handlerName);

// Formats and takes one printf-style statement; a null string prints as "(null)". Threads: as LogMessage.
void FormatAndLogMessage(LogLevel level, unsigned int id, DecodeType decodeType,
                         const std::shared_ptr<const Source>& source, const char* filename, int line,
                         const char* format, ...) __attribute__((format(printf, 7, 8)));

// Called once at the start of every stream-style statement's emission, before LogMessage: whatever the back end sets up
// on first use must be there when it returns.
void ForceLockHandlers();

}  // namespace zq::logging

#pragma GCC visibility pop
