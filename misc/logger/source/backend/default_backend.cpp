#include "zq/logging/default_backend.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <exception>
#include <string>

#include "backend/line_format.h"
#include "backend/output.h"
#include "backend/settings.h"
#include "backend/trouble.h"
#include "zq/logging/backend.h"

namespace zq::logging {
namespace {

// Never destroyed: other threads, and objects that are destroyed later than this library, may still make statements.
std::atomic<Output*> g_output{nullptr};
std::atomic<bool> g_exiting{false};
std::atomic<LineFormat> g_format{LineFormat::kText};

// initial counts only in the call that makes the output.
Output& TheOutput(const BackendOptions& initial = BackendOptionsFromEnvironment()) {
  static Output& output = [&]() -> Output& {
    auto* const made = new Output(kDefaultQueueSize);
    made->Configure(initial);
    g_format = initial.format;
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
  auto& output = TheOutput();
  LineBuffer buffer;
  FormatLine(buffer,
             {std::chrono::system_clock::now(), level, id, source, filename, line, text, ::gettid(), threadName.data()},
             g_format.load(std::memory_order_relaxed));
  output.Write({buffer.data(), buffer.size()}, level);
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
  output.Configure(options);
  g_format = options.format;
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
