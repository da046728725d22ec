#include "zq/logging/default_backend.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <exception>
#include <string>

#include "backend/line_format.h"
#include "backend/output.h"
#include "backend/sinks.h"
#include "zq/logging/backend.h"
#include "zq/posix/environment.h"

namespace zq::logging {
namespace {

std::optional<bool> ParseSwitch(std::string text) {
  for (char& c : text) {
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  if (text == "1" || text == "on" || text == "yes" || text == "true") {
    return true;
  }
  if (text == "0" || text == "off" || text == "no" || text == "false") {
    return false;
  }
  return std::nullopt;
}

BackendOptions ReadEnvironment() {
  BackendOptions options;
  if (const std::string text = zq::posix::Environment("ZQLOG_LEVEL"); !text.empty()) {
    if (const auto level = ParseLevel(text)) {
      options.minLevel = *level;
    } else {
      ReportTrouble("ZQLOG_LEVEL is \"" + text +
                    "\"; using INFO. Give DEBUG, INFO, INFO_LOCAL, INFO_SEARCH, WARNING, ERROR, ALERT, CRITICAL, WALL "
                    "or a number");
    }
  }
  options.file = zq::posix::Environment("ZQLOG_FILE");
  if (const std::string text = zq::posix::Environment("ZQLOG_CONSOLE"); !text.empty()) {
    if (const auto console = ParseSwitch(text)) {
      options.console = *console;
    } else {
      ReportTrouble("ZQLOG_CONSOLE is \"" + text + "\"; using on. Give on or off");
    }
  }
  return options;
}

// Never destroyed: other threads, and objects that are destroyed later than this library, may still make statements.
std::atomic<Output*> g_output{nullptr};
std::atomic<bool> g_exiting{false};

// initial counts only in the call that makes the output.
Output& TheOutput(const BackendOptions& initial = BackendOptionsFromEnvironment()) {
  static Output& output = [&]() -> Output& {
    auto* const made = new Output(kDefaultQueueSize);
    made->SetConsole(initial.console);
    made->SetFile(initial.file);
    g_output = made;
    if (g_exiting) {
      made->Stop();
    }
    return *made;
  }();
  return output;
}

struct StopAtExit {
  ~StopAtExit() {
    g_exiting = true;
    if (Output* const output = g_output) {
      output->Stop();
    }
  }
};
const StopAtExit g_stopAtExit;

void Emit(LogLevel level, unsigned int id, const Source* source, const char* filename, int line,
          std::string_view text) {
  // The name can change at any time, so it is asked for every time.
  std::array<char, 16> threadName{};
  ::prctl(PR_GET_NAME, threadName.data());
  LineBuffer buffer;
  FormatLine(buffer, {std::chrono::system_clock::now(), level, id, source, filename, line, text, ::gettid(),
                      threadName.data()});
  auto& output = TheOutput();
  output.Write({buffer.data(), buffer.size()});
  if (level >= ZQLOG_CRITICAL) {
    output.Flush();
  }
}

template <typename Action>
void ReportFailureOf(Action&& action) {
  try {
    action();
  } catch (const std::exception& failure) {
    ReportTrouble(std::string("a statement is lost: ") + failure.what());
  }
}

std::string Format(const char* format, std::va_list arguments) {
  std::va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, again);
  va_end(again);
  if (length < 0) {
    return std::string("(cannot be formatted) ") + format;
  }
  std::string text(static_cast<std::size_t>(length), '\0');
  std::vsnprintf(text.data(), text.size() + 1, format, arguments);
  return text;
}

}  // namespace

int g_minLogLevel = BackendOptionsFromEnvironment().minLevel;

const BackendOptions& BackendOptionsFromEnvironment() {
  static const BackendOptions& options = *new BackendOptions(ReadEnvironment());
  return options;
}

void ConfigureBackend(const BackendOptions& options) {
  auto& output = TheOutput(options);
  output.Flush();
  output.SetConsole(options.console);
  output.SetFile(options.file);
  SetMinLevel(options.minLevel);
}

void SetMinLevel(LogLevel level) { __atomic_store_n(&g_minLogLevel, static_cast<int>(level), __ATOMIC_RELAXED); }

void FlushLog() {
  if (Output* const output = g_output) {
    output->Flush();
  }
}

void LogMessage(LogLevel level, unsigned int id, DecodeType /*decodeType*/, const std::shared_ptr<const Source>& source,
                const char* filename, int line, std::string text, const std::string& /*handlerName*/) {
  ReportFailureOf([&] { Emit(level, id, source.get(), filename, line, text); });
}

void FormatAndLogMessage(LogLevel level, unsigned int id, DecodeType /*decodeType*/,
                         const std::shared_ptr<const Source>& source, const char* filename, int line,
                         const char* format, ...) {
  const int error = errno;
  std::va_list arguments;
  va_start(arguments, format);
  ReportFailureOf([&] { Emit(level, id, source.get(), filename, line, Format(format, arguments)); });
  va_end(arguments);
  errno = error;
}

void ForceLockHandlers() { TheOutput(); }

}  // namespace zq::logging
