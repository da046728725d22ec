// A program on the default back end, for tests that need a whole process: the first argument says what it does.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "zq/logging/default_backend.h"
#include "zq/logging/logger.h"

namespace {

struct LogsWhenDestroyed {
  ~LogsWhenDestroyed() { ZQLOG(ZQLOG_INFO, 0, "static object is gone"); }
};

void LogEveryLevel() {
  ZQLOG(ZQLOG_DEBUG, 0, "a debug line");
  ZQLOG(ZQLOG_INFO, 0, "an info line");
  ZQLOG(ZQLOG_WARNING, 0, "a warning line");
}

// More lines than the queue holds, and the process ends right behind them.
void LogFromManyThreads() {
  std::vector<std::jthread> threads;
  threads.reserve(8);
  for (int thread = 0; thread < 8; ++thread) {
    threads.emplace_back([thread] {
      for (int i = 0; i < 3000; ++i) {
        ZQLOG(ZQLOG_INFO, 0, "thread=" << thread << " i=" << i);
      }
    });
  }
}

void LogPrintfStyle() {
  const char* volatile none = nullptr;
  ZQLOG_FORMAT(ZQLOG_INFO, 9999, "name=%s", static_cast<const char*>(none));
  ZQLOG_FORMAT(ZQLOG_INFO, 9999, "long=%s", std::string(100'000, 'x').c_str());
  ZQLOG_FORMAT(ZQLOG_INFO, 9999, "%s", "forged\n2026-01-01 ERROR line");
}

}  // namespace

int main(int argumentCount, char** arguments) {
  const std::string what = argumentCount > 1 ? arguments[1] : "";
  static const LogsWhenDestroyed logs;
  if (what == "levels") {
    LogEveryLevel();
  } else if (what == "threads") {
    LogFromManyThreads();
  } else if (what == "printf") {
    LogPrintfStyle();
  } else if (what == "critical") {
    ZQLOG(ZQLOG_INFO, 0, "before it");
    ZQLOG(ZQLOG_CRITICAL, 0, "the end");
    ::_exit(3);
  } else if (what == "fork") {
    ZQLOG(ZQLOG_INFO, 0, "parent");
    zq::logging::FlushLog();
    const pid_t child = ::fork();
    if (child == 0) {
      ZQLOG(ZQLOG_CRITICAL, 0, "child");
      zq::logging::FlushLog();
      std::exit(0);
    }
    ::waitpid(child, nullptr, 0);
  } else {
    return 2;
  }
  std::exit(0);
}
