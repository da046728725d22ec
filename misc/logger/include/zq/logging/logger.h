// The log statement: gated on the minimum level before anything of it is evaluated.
//
//   ZQLOG(ZQLOG_INFO, 13, "Created RequestSource on topic=\"" << name << '"');
//   ZQLOG_FORMAT(ZQLOG_INFO, 9999, "receiver_src_notify_create src=%s", src);
#pragma once

#include <boost/io/ios_state.hpp>
#include <cstdint>
#include <memory>
#include <sstream>
#include <string>

#include "zq/logging/backend.h"
#include "zq/logging/log_level.h"
#include "zq/logging/source.h"

#pragma GCC visibility push(default)

namespace zq::logging {

namespace details {

// Counts a statement in the process's statistics. Leaves errno alone.
void CountLine(LogLevel level) noexcept;

}  // namespace details

// The calling thread's string stream, shared by all statements of the thread. Made on the thread's first statement and
// destroyed when the thread ends, after its thread_local objects; the main thread's lives as long as the process.
std::ostringstream& GetThreadLocalStream();

// One statement. The text written to Stream() goes to the back end when the object is destroyed; an exception of the
// back end ends there, with the statement lost. Whatever the statement does to the stream, its formatting or its error
// state, is undone, and errno is left as it was.
//
// Threads: lives and dies on one thread. Statements must not be nested in another statement's text on the same thread:
// they share the stream.
class Logger {
 public:
  // filename must outlive the statement; it is a path relative to the source tree.
  Logger(LogLevel level, unsigned int id, DecodeType decodeType, const std::shared_ptr<const Source>& source,
         const char* filename, int line, const std::string& handlerName);
  virtual ~Logger();

  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  std::ostream& Stream() noexcept { return m_stream; }

 private:
  LogLevel m_level;
  std::uint32_t m_id;
  DecodeType m_decodeType;
  const char* m_filename;
  int m_lineNumber;
  ConstSourcePtr m_source;
  std::ostringstream& m_stream;
  boost::io::ios_all_saver m_saver;
  const std::string m_handlerName;
};

}  // namespace zq::logging

#pragma GCC visibility pop

// A stream-style statement with every field given. text is what follows Stream() <<.
#define ZQLOG_AT(level, id, source, file, line, text)                                                          \
  do {                                                                                                         \
    if (const ::zq::logging::LogLevel zqlogLevel = (level); ::zq::logging::IsEnabled(zqlogLevel)) {            \
      ::zq::logging::Logger(zqlogLevel, (id), ::zq::logging::ZQLOG_DECODE_AS_KV, (source), (file), (line), {}) \
              .Stream()                                                                                        \
          << text;                                                                                             \
    }                                                                                                          \
  } while (false)

// A stream-style statement without a source, at the place where it stands.
#define ZQLOG(level, id, text) \
  ZQLOG_AT(::zq::logging::level, id, ::zq::logging::ConstSourcePtr(), __FILE__, __LINE__, text)

// A printf-style statement without a source, at the place where it stands.
#define ZQLOG_FORMAT(level, id, ...)                                                                        \
  do {                                                                                                      \
    if (::zq::logging::IsEnabled(::zq::logging::level)) {                                                   \
      ::zq::logging::details::CountLine(::zq::logging::level);                                              \
      ::zq::logging::FormatAndLogMessage(::zq::logging::level, (id), ::zq::logging::ZQLOG_DECODE_AS_KV,     \
                                         ::zq::logging::ConstSourcePtr(), __FILE__, __LINE__, __VA_ARGS__); \
    }                                                                                                       \
  } while (false)
