// The front end on a back end of this program's own.
#include "zq/logging/logger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iomanip>
#include <stdexcept>
#include <thread>
#include <vector>

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
};

std::function<void(Emitted)>& Sink() {
  static auto& sink = *new std::function<void(Emitted)>;
  return sink;
}

int g_forceLockHandlersCalls = 0;

}  // namespace

void LogMessage(LogLevel level, unsigned int id, DecodeType decodeType, const std::shared_ptr<const Source>& source,
                const char* filename, int line, std::string text, const std::string& handlerName) {
  Sink()({level, id, decodeType, source, filename, line, std::move(text), handlerName});
}

void FormatAndLogMessage(LogLevel level, unsigned int id, DecodeType decodeType,
                         const std::shared_ptr<const Source>& source, const char* filename, int line,
                         const char* format, ...) {
  char text[256];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  Sink()({level, id, decodeType, source, filename, line, text, "printf"});
}

void ForceLockHandlers() { ++g_forceLockHandlersCalls; }

namespace {

using ::testing::ElementsAre;

class LoggerTest : public ::testing::Test {
 protected:
  LoggerTest() {
    g_minLogLevel = ZQLOG_INFO;
    g_forceLockHandlersCalls = 0;
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

TEST_F(LoggerTest, EveryFieldReachesTheBackEnd) {
  const auto source = std::make_shared<const Source>("leaf", std::make_shared<const Source>("root"));
  ZQLOG_AT(ZQLOG_ERROR, 9999, source, "lbm/some_file", 42, "value=" << 7 << " on=" << true);
  ASSERT_EQ(m_emitted.size(), 1U);
  EXPECT_EQ(m_emitted[0].level, ZQLOG_ERROR);
  EXPECT_EQ(m_emitted[0].id, 9999U);
  EXPECT_EQ(m_emitted[0].decodeType, ZQLOG_DECODE_AS_KV);
  EXPECT_EQ(m_emitted[0].source, source);
  EXPECT_EQ(m_emitted[0].source->Reverse(), "leaf.root");
  EXPECT_EQ(m_emitted[0].filename, "lbm/some_file");
  EXPECT_EQ(m_emitted[0].line, 42);
  EXPECT_EQ(m_emitted[0].text, "value=7 on=1");
  EXPECT_EQ(m_emitted[0].handlerName, "");
  EXPECT_EQ(g_forceLockHandlersCalls, 1);

  ZQLOG_FORMAT(ZQLOG_INFO, 13, "src=%s id=%d", "name", 5);
  ASSERT_EQ(m_emitted.size(), 2U);
  EXPECT_EQ(m_emitted[1].text, "src=name id=5");
  EXPECT_EQ(m_emitted[1].decodeType, ZQLOG_DECODE_AS_KV);
  EXPECT_EQ(m_emitted[1].source, nullptr);
  EXPECT_EQ(m_emitted[1].filename, "misc/logger/tests/logger_test.cpp");
  EXPECT_EQ(g_forceLockHandlersCalls, 1);
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

TEST_F(LoggerTest, EveryThreadHasOneStreamOfItsOwn) {
  const std::ostringstream* const mine = &GetThreadLocalStream();
  const std::ostringstream* others = nullptr;
  std::thread([&] { others = &GetThreadLocalStream(); }).join();
  EXPECT_NE(others, mine);
  EXPECT_EQ(&GetThreadLocalStream(), mine);
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
  std::thread([&] {
    static char keyText[] = "from a key";
    thread_local LogsWhenDestroyed logs{"from thread_local"};
    static_cast<void>(logs.text);
    ZQLOG(ZQLOG_INFO, 0, "running");
    pthread_setspecific(key, keyText);
  }).join();
  pthread_key_delete(key);
  EXPECT_THAT(Texts(), ElementsAre("first", "running", "from thread_local", "from a key"));
}

TEST_F(LoggerTest, StatementsComeOutDuringStaticDestruction) {
  EXPECT_EXIT(
      {
        static LogsWhenDestroyed logs{"from static"};
        static_cast<void>(logs.text);
        Sink() = [](const Emitted& statement) { std::fprintf(stderr, "[%s]", statement.text.c_str()); };
        ZQLOG(ZQLOG_INFO, 0, "running");
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "\\[running\\]\\[from static\\]");
}

}  // namespace
}  // namespace zq::logging
