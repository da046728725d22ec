#include "zq/logging/logger.h"

#include <pthread.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <memory>
#include <new>
#include <string_view>

#include "zq/statistics/row.h"

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

struct NamedLevel {
  int level;
  std::string_view name;
};

constexpr std::array kLevels{
    NamedLevel{ZQLOG_DEBUG, "DEBUG"},
    NamedLevel{ZQLOG_INFO, "INFO"},
    NamedLevel{ZQLOG_INFO_LOCAL, "INFO_LOCAL"},
    NamedLevel{ZQLOG_INFO_SEARCH, "INFO_SEARCH"},
    NamedLevel{ZQLOG_WARNING, "WARNING"},
    NamedLevel{ZQLOG_ERROR, "ERROR"},
    NamedLevel{ZQLOG_ALERT, "ALERT"},
    NamedLevel{ZQLOG_CRITICAL, "CRITICAL"},
    NamedLevel{ZQLOG_WALL, "WALL"},
    NamedLevel{-1, "unnamed"},  // any that an application made up
};

// Rows are made by the first statement of their level and never destroyed, for statements come until the very end.
using LevelRow = std::atomic<statistics::Row*>;
constinit std::array<LevelRow, kLevels.size()> g_levelRows{};

statistics::Row* MakeLevelRow(LevelRow& place, std::string_view name) {
  const statistics::Kind kind{
      .name = "log",
      .help = "Log statements of one level.",
      .labels = {"level"},
      .fields = {{"lines", statistics::FieldType::kCounter, "", "Statements given to the log."}}};
  auto made = std::make_unique<statistics::Row>(kind, std::initializer_list<std::string_view>{name});
  statistics::Row* there = nullptr;
  return place.compare_exchange_strong(there, made.get()) ? made.release() : there;
}

}  // namespace

void details::CountLine(LogLevel level) noexcept {
  std::size_t index = 0;
  while (index + 1 < kLevels.size() && kLevels[index].level != level) {
    ++index;
  }
  statistics::Row* row = g_levelRows[index].load(std::memory_order_acquire);
  if (row == nullptr) {
    const ErrnoKeeper keeper;
    try {
      row = MakeLevelRow(g_levelRows[index], kLevels[index].name);
    } catch (const std::bad_alloc&) {
      return;
    }
  }
  row->Add(0);
}

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
  details::CountLine(m_level);
  try {
    ForceLockHandlers();
    LogMessage(m_level, m_id, m_decodeType, m_source, m_filename, m_lineNumber, m_stream.str(), m_handlerName);
  } catch (...) {
    // A statement that cannot be emitted is lost; it must not take the process with it.
  }
  m_stream.str({});
}

}  // namespace zq::logging
