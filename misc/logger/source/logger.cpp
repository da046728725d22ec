#include "zq/logging/logger.h"

namespace zq::logging {

std::string Source::Reverse() const { return m_parent ? m_name + '.' + m_parent->Reverse() : m_name; }

std::ostringstream& GetThreadLocalStream() {
  thread_local std::ostringstream stream;
  return stream;
}

Logger::Logger(LogLevel level, unsigned int id, DecodeType decodeType, const std::shared_ptr<const Source>& source,
               const char* filename, int line, const std::string& handlerName)
    : m_level(level),
      m_id(id),
      m_decodeType(decodeType),
      m_filename(filename),
      m_lineNumber(line),
      m_source(source),
      m_stream(GetThreadLocalStream()),
      m_saver(m_stream),
      m_handlerName(handlerName) {}

Logger::~Logger() {
  ForceLockHandlers();
  LogMessage(m_level, m_id, m_decodeType, m_source, m_filename, m_lineNumber, m_stream.str(), m_handlerName);
  m_stream.str({});
}

}  // namespace zq::logging
