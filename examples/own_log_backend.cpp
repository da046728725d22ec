// Takes the connector's log statements into the application's own log: this program defines the four names of a log
// back end, and links price_connector::connector without price_connector::logger_backend.
#include <cstdarg>
#include <cstdio>

#include "ps_common/config/config.h"
#include "ps_common/connector/lbm_client_resource_mgr.h"
#include "ps_common/connector/shutdown_guard.h"
#include "zq/logging/backend.h"

namespace zq::logging {

int g_minLogLevel = ZQLOG_INFO;

// Any thread calls it. A real one hands the text to the application's log.
void LogMessage(LogLevel level, unsigned int /*id*/, DecodeType /*decodeType*/, const std::shared_ptr<const Source>&,
                const char* filename, int line, std::string text, const std::string& /*handlerName*/) {
  std::fprintf(stderr, "my log: level=%d %s:%d %s\n", level, filename, line, text.c_str());
}

void FormatAndLogMessage(LogLevel level, unsigned int id, DecodeType decodeType,
                         const std::shared_ptr<const Source>& source, const char* filename, int line,
                         const char* format, ...) {
  char text[1024];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  LogMessage(level, id, decodeType, source, filename, line, text, "");
}

// There is nothing to set up.
void ForceLockHandlers() {}

}  // namespace zq::logging

int main() {
  const auto config = ps_ns::Config::Parse("<Config><General/><Logging/></Config>");
  ps_ns::LbmClientResourceMgr manager(config, "own_log_backend", false, -1, 100, {}, 0);
  const ps_ns::ShutdownGuard guard(manager);
}
