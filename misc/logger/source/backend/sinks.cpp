#include "backend/sinks.h"

#include <paths.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "backend/line_format.h"
#include "backend/trouble.h"
#include "zq/posix/error.h"
#include "zq/posix/file.h"

namespace zq::logging {
namespace {

int PriorityOf(spdlog::level::level_enum level) {
  switch (level) {
    case spdlog::level::trace:
    case spdlog::level::debug:
      return LOG_DEBUG;
    case spdlog::level::warn:
      return LOG_WARNING;
    case spdlog::level::err:
      return LOG_ERR;
    case spdlog::level::critical:
      return LOG_CRIT;
    default:
      return LOG_INFO;
  }
}

std::string_view LineOf(const spdlog::details::log_msg& message) {
  return {message.payload.data(), message.payload.size()};
}

}  // namespace

void ConsoleSink::Set(Console console) {
  const std::lock_guard lock(mutex_);
  m_console = console;
}

void ConsoleSink::sink_it_(const spdlog::details::log_msg& message) {
  if (m_console == Console::kOn) {
    zq::posix::WriteAll(STDERR_FILENO, LineOf(message));
  } else if (m_console == Console::kJournal) {
    m_line.assign("<");
    m_line += static_cast<char>('0' + PriorityOf(message.level));
    m_line += '>';
    m_line += WithoutTime(LineOf(message));
    zq::posix::WriteAll(STDERR_FILENO, m_line);
  }
}

void FileSink::Configure(const BackendOptions& options) {
  const std::lock_guard lock(mutex_);
  m_file.Configure(options);
}

void FileSink::sink_it_(const spdlog::details::log_msg& message) { m_file.Write(LineOf(message), message.time); }

void SyslogSink::SetEnabled(bool enabled) {
  const std::lock_guard lock(mutex_);
  if (enabled == (m_syslog != nullptr)) {
    return;
  }
  m_syslog.reset();
  if (!enabled) {
    return;
  }
  if (::access(_PATH_LOG, W_OK) != 0) {
    ReportTrouble("cannot write to syslog at " _PATH_LOG ": " + zq::posix::ErrorText(errno) +
                  ". Lines will be missing there until its service runs");
  }
  m_syslog = std::make_unique<decltype(m_syslog)::element_type>("", LOG_PID, LOG_USER, false);
}

void SyslogSink::sink_it_(const spdlog::details::log_msg& message) {
  if (m_syslog) {
    std::string_view line = WithoutTime(LineOf(message));
    line.remove_suffix(1);  // its end
    auto record = message;
    record.payload = {line.data(), line.size()};
    m_syslog->log(record);
  }
}

}  // namespace zq::logging
