// The front end on a back end of this program's own.
#include "zq/logging/logger.h"

#include <gmock/gmock.h>
#include <pthread.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <iomanip>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "zq/statistics/snapshot.h"

namespace zq::logging {

int g_minLogLevel = ZQLOG_INFO;

namespace {

struct Emitted {
  LogLevel level;
  unsigned int id;
  DecodeType decodeType;
  ConstSourcePtr source;
  std::string filename;
  int line;
  std::string text;
  std::string handlerName;
  bool handlersLocked;
};

std::function<void(Emitted)>& Sink() {
  static auto& sink = *new std::function<void(Emitted)>;
  return sink;
}

bool g_handlersLocked = false;  // since the last statement

}  // namespace

void LogMessage(LogLevel level, unsigned int id, DecodeType decodeType, const std::shared_ptr<const Source>& source,
                const char* filename, int line, std::string text, const std::string& handlerName) {
  Sink()({level, id, decodeType, source, filename, line, std::move(text), handlerName,
          std::exchange(g_handlersLocked, false)});
}

void FormatAndLogMessage(LogLevel level, unsigned int id, DecodeType decodeType,
                         const std::shared_ptr<const Source>& source, const char* filename, int line,
                         const char* format, ...) {
  char text[256];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  Sink()({level, id, decodeType, source, filename, line, text, {}, std::exchange(g_handlersLocked, false)});
}

void ForceLockHandlers() { g_handlersLocked = true; }

namespace {

using ::testing::ElementsAre;
using ::testing::FieldsAre;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

class LoggerTest : public ::testing::Test {
 protected:
  LoggerTest() {
    g_minLogLevel = ZQLOG_INFO;
    Sink() = [this](Emitted statement) { m_emitted.push_back(std::move(statement)); };
  }
  ~LoggerTest() override { Sink() = nullptr; }

  std::vector<std::string> Texts() const {
    std::vector<std::string> texts;
    for (const auto& statement : m_emitted) {
      texts.push_back(statement.text);
    }
    return texts;
  }

  std::vector<Emitted> m_emitted;
};

TEST_F(LoggerTest, EveryFieldReachesTheBackEndOnceItsHandlersAreLocked) {
  const ConstSourcePtr source = std::make_shared<const Source>("leaf", std::make_shared<const Source>("root"));
  constexpr const char* kThisFile = "misc/logger/tests/logger_test.cpp";
  Logger(ZQLOG_ERROR, 9999, ZQLOG_DECODE_AS_JSON, source, "lbm/file", 42, "audit").Stream() << "value=" << 7;
  ZQLOG_AT(ZQLOG_ERROR, 9999, source, "lbm/file", 42, "value=" << 7);
  const int line = __LINE__;
  ZQLOG(ZQLOG_INFO, 13, "on=" << true);
  ZQLOG_FORMAT(ZQLOG_INFO, 14, "on=%d", 1);
  EXPECT_THAT(
      m_emitted,
      ElementsAre(FieldsAre(ZQLOG_ERROR, 9999U, ZQLOG_DECODE_AS_JSON, source, "lbm/file", 42, "value=7", "audit", true),
                  FieldsAre(ZQLOG_ERROR, 9999U, ZQLOG_DECODE_AS_KV, source, "lbm/file", 42, "value=7", "", true),
                  FieldsAre(ZQLOG_INFO, 13U, ZQLOG_DECODE_AS_KV, nullptr, kThisFile, line + 1, "on=1", "", true),
                  FieldsAre(ZQLOG_INFO, 14U, ZQLOG_DECODE_AS_KV, nullptr, kThisFile, line + 2, "on=1", "", false)));
  EXPECT_EQ(source->Reverse(), "leaf.root");
}

TEST_F(LoggerTest, ADisabledStatementEvaluatesNothing) {
  const auto never = []() -> int { throw std::logic_error("evaluated"); };
  g_minLogLevel = ZQLOG_INFO_LOCAL;
  ZQLOG(ZQLOG_INFO, static_cast<unsigned int>(never()), never());
  ZQLOG_FORMAT(ZQLOG_INFO, 0, "%d", never());
  ZQLOG(ZQLOG_INFO_LOCAL, 0, "at the minimum");
  EXPECT_THAT(Texts(), ElementsAre("at the minimum"));
}

TEST_F(LoggerTest, NothingThatAStatementDoesToTheStreamReachesTheNext) {
  const char* none = nullptr;
  ZQLOG(ZQLOG_INFO, 0, std::boolalpha << std::hex << std::setfill('*') << std::setprecision(2) << std::setw(6) << true);
  ZQLOG(ZQLOG_INFO, 0, "before " << none << " after");
  ZQLOG(ZQLOG_INFO, 0, std::setw(9));
  ZQLOG(ZQLOG_INFO, 0, true << ' ' << 255 << ' ' << 1.2345);
  EXPECT_THAT(Texts(), ElementsAre("**true", "before ", "", "1 255 1.2345"));
}

TEST_F(LoggerTest, AnExceptionOfTheBackEndOrTheTextEndsOnlyThatStatement) {
  Sink() = [](const Emitted&) { throw std::runtime_error("disk on fire"); };
  ZQLOG(ZQLOG_INFO, 0, std::hex << "lost");
  Sink() = [this](Emitted statement) { m_emitted.push_back(std::move(statement)); };
  const auto fail = []() -> int { throw std::runtime_error("no value"); };
  EXPECT_THROW(ZQLOG(ZQLOG_INFO, 0, "value=" << fail()), std::runtime_error);
  ZQLOG(ZQLOG_INFO, 0, 255);
  EXPECT_THAT(Texts(), ElementsAre("value=", "255"));
}

TEST_F(LoggerTest, AStatementLeavesErrnoAlone) {
  Sink() = [](const Emitted&) { errno = EIO; };
  errno = EAGAIN;
  ZQLOG(ZQLOG_INFO, 0, "text");
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(LoggerTest, StatisticsCountWhatIsGivenToTheLogByLevel) {
  const auto counts = [] {
    std::map<std::string, std::uint64_t> lines;
    for (const statistics::Snapshot snapshot = statistics::TakeSnapshot(); const auto* row : snapshot.Of("log")) {
      lines[row->labels[0]] = row->values[0].Count();
    }
    return lines;
  };
  auto before = counts();
  errno = EAGAIN;
  ZQLOG(ZQLOG_DEBUG, 0, "disabled");
  ZQLOG_FORMAT(ZQLOG_ALERT, 0, "%s", "formatted");
  ZQLOG(ZQLOG_ALERT, 0, "streamed");
  ZQLOG_AT(static_cast<LogLevel>(77), 0, ConstSourcePtr(), "file", 1, "of a level without a name");
  EXPECT_EQ(errno, EAGAIN);
  std::map<std::string, std::uint64_t> counted;
  for (const auto& [level, lines] : counts()) {
    if (lines != before[level]) {
      counted[level] = lines - before[level];
    }
  }
  EXPECT_THAT(counted, UnorderedElementsAre(Pair("ALERT", 2), Pair("unnamed", 1)));
}

struct LogsWhenDestroyed {
  const char* text;
  ~LogsWhenDestroyed() { ZQLOG(ZQLOG_INFO, 0, text); }
};

// Keys are destroyed in the order of their creation, so this one outlives the stream's.
void LogFromKeyDestructor(void* text) { ZQLOG(ZQLOG_INFO, 0, static_cast<const char*>(text)); }

TEST_F(LoggerTest, StatementsComeOutWhileAThreadEnds) {
  ZQLOG(ZQLOG_INFO, 0, "first");
  pthread_key_t key;
  ASSERT_EQ(pthread_key_create(&key, &LogFromKeyDestructor), 0);
  const std::ostringstream* const mine = &GetThreadLocalStream();
  std::thread([&] {
    EXPECT_NE(&GetThreadLocalStream(), mine) << "every thread has its own stream";
    static char keyText[] = "from a key";
    thread_local LogsWhenDestroyed logs{"from thread_local"};
    static_cast<void>(logs.text);
    ZQLOG(ZQLOG_INFO, 0, "running");
    pthread_setspecific(key, keyText);
  }).join();
  pthread_key_delete(key);
  EXPECT_THAT(Texts(), ElementsAre("first", "running", "from thread_local", "from a key"));
}

}  // namespace
}  // namespace zq::logging
