// The default back end: its parts in this process, the whole of it in child processes.
#include <gmock/gmock.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <syslog.h>

#include <array>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <latch>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "backend/line_format.h"
#include "backend/output.h"
#include "test_support/temporary_directory.h"
#include "zq/logging/default_backend.h"

namespace {

// What came to syslog: severity and text.
std::vector<std::pair<int, std::string>> g_syslog;

void TakeSyslogArguments(int severity, const char* format, std::va_list arguments) {
  std::array<char, 256> text{};
  std::vsnprintf(text.data(), text.size(), format, arguments);
  g_syslog.emplace_back(severity, text.data());
}

}  // namespace

// In the places of the C library's functions, the second of which fortified sources call: the socket behind those has a
// fixed path.
extern "C" void TakeSyslog(int severity, const char* format, ...) __asm__("syslog");
extern "C" void TakeFortifiedSyslog(int severity, int flag, const char* format, ...) __asm__("__syslog_chk");

void TakeSyslog(int severity, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  TakeSyslogArguments(severity, format, arguments);
  va_end(arguments);
}

void TakeFortifiedSyslog(int severity, int /*flag*/, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  TakeSyslogArguments(severity, format, arguments);
  va_end(arguments);
}

namespace zq::logging {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::SizeIs;
using ::testing::StartsWith;

std::vector<std::string> LinesOf(const std::string& path) {
  std::ifstream file(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) {
    lines.push_back(line);
  }
  return lines;
}

BackendOptions ToFile(const std::string& path) {
  BackendOptions options;
  options.console = Console::kOff;
  options.file = path;
  return options;
}

class BackendTest : public ::testing::Test {
 protected:
  BackendTest() {
    ::setenv("TZ", "XST+05:30", 1);
    ::tzset();
  }
  ~BackendTest() override {
    ::unsetenv("TZ");
    ::tzset();
  }

  std::string File(const char* name) const { return m_directory.Path() / name; }

  // Runs the child program with these environment settings; its standard error is then in Console().
  int Run(const std::string& environment, const std::string& what) const {
    const std::string command =
        "env -u ZQLOG_LEVEL -u ZQLOG_FORMAT -u ZQLOG_CONSOLE -u ZQLOG_SYSLOG -u ZQLOG_FILE -u JOURNAL_STREAM " +
        environment + " '" BACKEND_CHILD "' " + what;
    const int status = std::system((command + " 2>'" + File("console") + '\'').c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  std::vector<std::string> Console() const { return LinesOf(File("console")); }

  const test_support::TemporaryDirectory m_directory;
};

const auto kTime = std::chrono::system_clock::from_time_t(1'000'000'000) + std::chrono::microseconds(1234);

std::string Line(const Statement& statement, LineFormat format = LineFormat::kText) {
  LineBuffer buffer;
  FormatLine(buffer, statement, format);
  return {buffer.data(), buffer.size()};
}

TEST_F(BackendTest, AStatementIsOneLineWhateverItsFieldsContain) {
  const Source source("leaf name", std::make_shared<const Source>("root"));
  EXPECT_EQ(
      Line({kTime, ZQLOG_WARNING, 13, &source, "lbm/lbm_cpp", 57, "Created x=1", 4711, "lbm_ctx_thread"}),
      "2001-09-08T20:16:40.001234-05:30 WARNING 4711/lbm_ctx_thread leaf_name.root 13 lbm/lbm_cpp:57 Created x=1\n");
  EXPECT_THAT(
      Line({kTime, static_cast<LogLevel>(25), 0, nullptr, nullptr, 0, "a\nb\r\t\x1b[31m \xC2\x9B \xC3\xA9", 1, ""}),
      EndsWith(" 25 1/- - 0 -:0 a\\nb\\r\\t\\x1b[31m \\xc2\\x9b \xC3\xA9\n"));
}

TEST_F(BackendTest, AJsonLineIsOneValidObjectWhateverItsFieldsContain) {
  const Source source("leaf", std::make_shared<const Source>("root"));
  EXPECT_EQ(Line({kTime, ZQLOG_WARNING, 13, &source, "lbm/lbm_cpp", 57, "x=\"1\" \\ a\nb\x7F", 4711, "client"},
                 LineFormat::kJson),
            R"({"time":"2001-09-08T20:16:40.001234-05:30","level":"WARNING","thread":4711,"threadName":"client",)"
            R"("source":"leaf.root","id":13,"file":"lbm/lbm_cpp","line":57,"text":"x=\"1\" \\ a\u000ab\u007f"})"
            "\n");
  const struct {
    const char* text;
    const char* escaped;
  } cases[] = {
      {"\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80 \xF4\x8F\xBF\xBF",
       "\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80 \xF4\x8F\xBF\xBF"},
      {"\xC2\x9B", "\\u009b"},
      {"\xFF|\xC0\x80|\xE0\x9F\xBF", "\\ufffd|\\ufffd\\ufffd|\\ufffd\\ufffd\\ufffd"},
      {"\xED\xA0\x80|\xF4\x90\x80\x80", "\\ufffd\\ufffd\\ufffd|\\ufffd\\ufffd\\ufffd\\ufffd"},
      {"\xF0\x8F\xBF\xBF", "\\ufffd\\ufffd\\ufffd\\ufffd"},
      {"\xE2\x82", "\\ufffd\\ufffd"},
      {"\xE2\"", "\\ufffd\\\""},
  };
  for (const auto& [text, escaped] : cases) {
    EXPECT_THAT(Line({kTime, static_cast<LogLevel>(25), 0, nullptr, nullptr, 0, text, 1, ""}, LineFormat::kJson),
                AllOf(HasSubstr(R"("level":"25",)"), EndsWith(R"("text":")" + std::string(escaped) + "\"}\n")));
  }
}

TEST_F(BackendTest, LevelsHaveNamesAndNumbers) {
  EXPECT_EQ(ParseLevel("zqlog_info_search"), ZQLOG_INFO_SEARCH);
  EXPECT_EQ(ParseLevel("25"), static_cast<LogLevel>(25));
  for (const char* text : {"", "loud", "10x", " 10", "ZQLOG_", "99999999999"}) {
    EXPECT_EQ(ParseLevel(text), std::nullopt) << text;
  }
}

// Every line that threads write before, during and after the stop is in the file, each thread's in order.
TEST_F(BackendTest, NoLineIsLostOrMovedAroundTheStop) {
  constexpr int kThreads = 4;
  constexpr int kLines = 2000;
  Output output(2);
  output.Configure(ToFile(File("log")));
  std::vector<std::jthread> threads;
  threads.reserve(kThreads);
  std::latch halfDone(kThreads);
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; i < kLines; ++i) {
        output.Write(std::to_string(thread) + ' ' + std::to_string(i) + '\n', ZQLOG_INFO);
        if (i == kLines / 2) {
          halfDone.count_down();
        }
      }
    });
  }
  halfDone.wait();
  output.Stop();
  output.Stop();
  threads.clear();  // joins them
  output.Write("4 0\n", ZQLOG_INFO);

  std::map<int, int> next;
  for (const auto& line : LinesOf(File("log"))) {
    std::istringstream fields(line);
    int thread = -1;
    int i = -1;
    ASSERT_TRUE(fields >> thread >> i) << line;
    ASSERT_EQ(i, next[thread]++) << "thread " << thread;
  }
  EXPECT_EQ(next, (std::map<int, int>{{0, kLines}, {1, kLines}, {2, kLines}, {3, kLines}, {4, 1}}));
}

TEST_F(BackendTest, FlushReturnsWhenTheCallersLinesAreWritten) {
  Output output(64);
  output.Configure(ToFile(File("log")));
  const auto writeAndCheck = [&](const std::string& name) {
    for (int i = 0; i < 200; ++i) {
      const std::string line = name + std::to_string(i);
      output.Write(line + '\n', ZQLOG_INFO);
      output.Flush();
      ASSERT_THAT(LinesOf(File("log")), Contains(line));
    }
  };
  const std::jthread other([&] { writeAndCheck("other"); });
  writeAndCheck("mine");
}

TEST_F(BackendTest, AFullFileIsReportedOnceAndWrittenAgainWhenThereIsRoom) {
  const std::string line = std::string(999, 'x');
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  {
    ::testing::internal::CaptureStderr();
    Output output(64);
    output.Configure(ToFile(File("log")));
    const rlimit small{2500, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    for (int i = 0; i < 5; ++i) {
      output.Write(line + '\n', ZQLOG_INFO);
    }
    output.Flush();
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
    output.Write("there is room\n", ZQLOG_INFO);
  }
  EXPECT_THAT(LinesOf(File("log")), ElementsAre(line, line, line.substr(0, 500), "there is room"));
  EXPECT_THAT(::testing::internal::GetCapturedStderr(), MatchesRegex("[^\n]*cannot write log file[^\n]*" + File("log") +
                                                                     "[^\n]*\n[^\n]*is written again[^\n]*: 3\n"));
}

TEST_F(BackendTest, TheEnvironmentChoosesLevelFileAndConsole) {
  EXPECT_EQ(Run("", "levels"), 0);
  EXPECT_THAT(Console(),
              ElementsAre(EndsWith("an info line"), EndsWith("a warning line"), EndsWith("static object is gone")));
  EXPECT_THAT(Console().front(), HasSubstr("- 0 misc/logger/tests/backend_child.cpp:"));

  EXPECT_EQ(Run("ZQLOG_LEVEL=warning", "levels"), 0);
  EXPECT_THAT(Console(), ElementsAre(EndsWith("a warning line")));

  EXPECT_EQ(Run("ZQLOG_LEVEL=0 ZQLOG_CONSOLE=off ZQLOG_FILE='" + File("log") + '\'', "levels"), 0);
  EXPECT_THAT(Console(), SizeIs(0));
  EXPECT_THAT(LinesOf(File("log")), SizeIs(4));
}

TEST_F(BackendTest, SettingsThatCannotBeAreNamedAndTheDefaultsHold) {
  const std::string settings =
      "ZQLOG_LEVEL=loud ZQLOG_FORMAT=xml ZQLOG_CONSOLE=maybe ZQLOG_SYSLOG=local0 ZQLOG_FILE_DAILY=2 ";
  EXPECT_EQ(Run(settings + "ZQLOG_FILE_SIZE=10KB ZQLOG_FILE_KEEP=0", "levels"), 0);
  auto lines = Console();
  ASSERT_THAT(lines, SizeIs(7 + 3));
  std::string troubles;
  for (const auto& line : lines) {
    troubles += line + '\n';
  }
  EXPECT_THAT(
      troubles,
      AllOf(HasSubstr("ZQLOG_LEVEL is \"loud\"; using INFO"), HasSubstr("ZQLOG_FORMAT is \"xml\"; using text"),
            HasSubstr("ZQLOG_CONSOLE is \"maybe\"; using on"), HasSubstr("ZQLOG_SYSLOG is \"local0\"; using off"),
            HasSubstr("ZQLOG_FILE_DAILY is \"2\"; using off"), HasSubstr("ZQLOG_FILE_SIZE is \"10KB\"; using no limit"),
            HasSubstr("ZQLOG_FILE_KEEP is \"0\"; using 5")));
  for (const char* size : {"0", "-1", "K", "1T", "99999999999G", "99999999999999999999", "1 K"}) {
    Run(std::string("ZQLOG_FILE_SIZE='") + size + '\'', "levels");
    EXPECT_THAT(Console(), Contains(HasSubstr("ZQLOG_FILE_SIZE is"))) << size;
  }
}

TEST_F(BackendTest, EveryLineIsInOneOfTheRotatedFilesBeforeTheProcessEnds) {
  EXPECT_EQ(Run("ZQLOG_FORMAT=JSON ZQLOG_CONSOLE=off ZQLOG_FILE_SIZE=64k ZQLOG_FILE_KEEP=999 ZQLOG_FILE='" +
                    File("log") + '\'',
                "threads"),
            0);
  std::size_t lines = 0;
  for (const auto& entry : std::filesystem::directory_iterator(m_directory.Path())) {
    EXPECT_LE(entry.file_size(), 64U << 10) << entry.path();
    for (const auto& line : LinesOf(entry.path())) {
      ASSERT_THAT(line, AllOf(StartsWith("{\"time\":\""), EndsWith("\"}")));
      ++lines;
    }
  }
  EXPECT_EQ(lines, 8U * 3000 + 1);
}

TEST_F(BackendTest, TheJournalGetsPrioritiesAndNoTime) {
  const auto lines =
      ElementsAre(StartsWith("<7>DEBUG "), StartsWith("<6>INFO "), StartsWith("<4>WARNING "), StartsWith("<6>INFO "));
  EXPECT_EQ(Run("ZQLOG_LEVEL=0 ZQLOG_CONSOLE=journal", "levels"), 0);
  EXPECT_THAT(Console(), lines);
  const std::string itsJournal = "ZQLOG_LEVEL=0 JOURNAL_STREAM=$(stat -c %d:%i '" + File("console") + "') ";
  EXPECT_EQ(Run(itsJournal, "levels"), 0);
  EXPECT_THAT(Console(), lines);
  EXPECT_EQ(Run(itsJournal + "ZQLOG_CONSOLE=on", "levels"), 0);
  EXPECT_THAT(Console(), Each(StartsWith("2")));
  EXPECT_EQ(Run("JOURNAL_STREAM=1:2", "levels"), 0);
  EXPECT_THAT(Console(), Each(StartsWith("2"))) << "standard error has been redirected since";
}

TEST_F(BackendTest, SyslogGetsSeveritiesAndNoTime) {
  ::testing::internal::CaptureStderr();  // where there is no syslog service, that is said there
  {
    Output output(64);
    auto options = ToFile("");
    options.syslog = true;
    output.Configure(options);
    for (const auto level : {ZQLOG_DEBUG, ZQLOG_INFO_SEARCH, ZQLOG_WARNING, ZQLOG_ERROR, ZQLOG_ALERT, ZQLOG_WALL}) {
      output.Write("2026-01-01T00:00:00 a %s line\n", level);
    }
    output.Flush();
    options.syslog = false;
    output.Configure(options);
    output.Write("0 another\n", ZQLOG_INFO);
  }
  ::testing::internal::GetCapturedStderr();
  std::vector<int> severities;
  for (const auto& [severity, text] : g_syslog) {
    severities.push_back(severity);
    EXPECT_EQ(text, "a %s line");
  }
  EXPECT_THAT(severities, ElementsAre(LOG_DEBUG, LOG_INFO, LOG_WARNING, LOG_ERR, LOG_CRIT, LOG_CRIT));
}

TEST_F(BackendTest, ACriticalLineIsWrittenAtOnceWithThoseBeforeIt) {
  EXPECT_EQ(Run("", "critical"), 3);
  EXPECT_THAT(Console(), ElementsAre(EndsWith("before it"), EndsWith("the end")));
}

TEST_F(BackendTest, AForkedChildWritesToStandardErrorAndDoesNotHang) {
  EXPECT_EQ(Run("ZQLOG_CONSOLE=off", "fork"), 0);
  EXPECT_THAT(Console(), AllOf(Contains(EndsWith("child")).Times(1), Not(Contains(EndsWith("parent")))));
}

TEST_F(BackendTest, AFullDiskDoesNotStopTheConsole) {
  EXPECT_EQ(Run("ZQLOG_FILE=/dev/full", "threads"), 0);
  EXPECT_THAT(Console(), AllOf(SizeIs(8 * 3000 + 2), Contains(HasSubstr("cannot write log file /dev/full")).Times(1)));
}

TEST_F(BackendTest, PrintfStatementsSurviveNullAndLongAndHostileStrings) {
  EXPECT_EQ(Run("", "printf"), 0);
  EXPECT_THAT(Console(), ElementsAre(EndsWith(" name=(null)"), EndsWith("long=" + std::string(100'000, 'x')),
                                     EndsWith("forged\\n2026-01-01 ERROR line"), EndsWith("static object is gone")));
}

}  // namespace
}  // namespace zq::logging
