#include "zq/logging/logger.h"

#include <pthread.h>

#include <cerrno>

namespace zq::logging {
namespace {

// A plain pointer, freed by a key's destructor instead of a thread_local object's own: key destructors run after those
// of all thread_local objects, and on the main thread not at all, so statements in destructors of thread_local and
// static objects find their stream alive.
thread_local std::ostringstream* t_stream = nullptr;

void DeleteStream(void* stream) {
  t_stream = nullptr;
  delete static_cast<std::ostringstream*>(stream);
}

bool MakeStreamKey(pthread_key_t& key) { return pthread_key_create(&key, &DeleteStream) == 0; }

std::ostringstream& MakeStream() {
  static pthread_key_t key;
  static const bool haveKey = MakeStreamKey(key);
  auto stream = std::make_unique<std::ostringstream>();
  if (haveKey) {
    // Without a key, or a value in it, the stream outlives its thread: better than no statement.
    pthread_setspecific(key, stream.get());
  }
  t_stream = stream.release();
  return *t_stream;
}

// Statements leave errno alone: code that has just seen a call fail may log before it looks.
class ErrnoKeeper {
 public:
  ErrnoKeeper() = default;
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;
  ~ErrnoKeeper() { errno = m_errno; }

 private:
  const int m_errno = errno;
};

}  // namespace

std::ostringstream& GetThreadLocalStream() {
  if (t_stream != nullptr) {
    return *t_stream;
  }
  const ErrnoKeeper keeper;
  return MakeStream();
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
  const ErrnoKeeper keeper;
  try {
    ForceLockHandlers();
    LogMessage(m_level, m_id, m_decodeType, m_source, m_filename, m_lineNumber, m_stream.str(), m_handlerName);
  } catch (...) {
    // A statement that cannot be emitted is lost; it must not take the process with it.
  }
  m_stream.str({});
}

}  // namespace zq::logging
