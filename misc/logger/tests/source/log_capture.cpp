#include "zq/logging/testing/log_capture.h"

#include <algorithm>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <utility>

#include "zq/logging/backend.h"

namespace zq::logging {

int g_minLogLevel = ZQLOG_DEBUG;

namespace testing {
namespace {

struct Store {
  std::mutex mutex;
  std::condition_variable arrived;
  std::vector<CapturedStatement> statements;  // under mutex
};

// Never destroyed: statements may still come while the program's static objects go.
Store& TheStore() {
  static Store& store = *new Store;
  return store;
}

bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

void Keep(CapturedStatement statement) {
  auto& store = TheStore();
  {
    const std::lock_guard lock(store.mutex);
    store.statements.push_back(std::move(statement));
  }
  store.arrived.notify_all();
}

}  // namespace

namespace log_capture {

void Clear() {
  auto& store = TheStore();
  const std::lock_guard lock(store.mutex);
  store.statements.clear();
  SetMinLevel(ZQLOG_DEBUG);
}

void SetMinLevel(LogLevel level) { __atomic_store_n(&g_minLogLevel, static_cast<int>(level), __ATOMIC_RELAXED); }

std::vector<CapturedStatement> Statements() {
  auto& store = TheStore();
  const std::lock_guard lock(store.mutex);
  return store.statements;
}

std::vector<std::string> Texts() {
  std::vector<std::string> texts;
  for (auto& statement : Statements()) {
    texts.push_back(std::move(statement.text));
  }
  return texts;
}

std::vector<CapturedStatement> Find(const std::string& part) {
  auto found = Statements();
  std::erase_if(found, [&](const CapturedStatement& statement) { return !Contains(statement.text, part); });
  return found;
}

::testing::AssertionResult WaitForText(const std::string& part, std::chrono::milliseconds deadline) {
  auto& store = TheStore();
  std::unique_lock lock(store.mutex);
  const bool found = store.arrived.wait_for(lock, deadline, [&] {
    return std::any_of(store.statements.begin(), store.statements.end(),
                       [&](const CapturedStatement& statement) { return Contains(statement.text, part); });
  });
  if (found) {
    return ::testing::AssertionSuccess();
  }
  auto failure = ::testing::AssertionFailure()
                 << "waited " << deadline.count() << " ms for a log statement with '" << part << "'; captured:";
  for (const auto& statement : store.statements) {
    failure << "\n  " << statement.level << ' ' << statement.file << ':' << statement.line << ' ' << statement.text;
  }
  return failure;
}

}  // namespace log_capture
}  // namespace testing

void LogMessage(LogLevel level, unsigned int id, DecodeType decodeType, const std::shared_ptr<const Source>& source,
                const char* filename, int line, std::string text, const std::string& handlerName) {
  testing::Keep({level, id, decodeType, source ? source->Name() : std::string(), filename, line, std::move(text),
                 handlerName, std::this_thread::get_id()});
}

void FormatAndLogMessage(LogLevel level, unsigned int id, DecodeType decodeType,
                         const std::shared_ptr<const Source>& source, const char* filename, int line,
                         const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  char* formatted = nullptr;
  const int length = ::vasprintf(&formatted, format, arguments);
  va_end(arguments);
  if (length == -1) {
    ADD_FAILURE() << "statement at " << filename << ':' << line << " cannot be formatted: " << format;
    return;
  }
  const std::unique_ptr<char, decltype(&std::free)> owner(formatted, &std::free);
  LogMessage(level, id, decodeType, source, filename, line, formatted, {});
}

void ForceLockHandlers() {}

}  // namespace zq::logging
