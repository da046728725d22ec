#include "backend/output.h"

#include <pthread.h>
#include <spdlog/async_logger.h>
#include <spdlog/details/thread_pool.h>
#include <spdlog/logger.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <exception>
#include <mutex>
#include <utility>

#include "backend/sinks.h"
#include "backend/trouble.h"
#include "zq/posix/file.h"
#include "zq/posix/fork.h"
#include "zq/posix/signals.h"

namespace zq::logging {
namespace {

constexpr const char* kLoggerName = "zq";
constexpr const char* kThreadName = "zq_log";

std::shared_ptr<spdlog::details::thread_pool> StartThread(std::size_t queueSize) {
  const zq::posix::SignalBlocker blocker;  // a closed standard error must not end the process from there
  return std::make_shared<spdlog::details::thread_pool>(queueSize, 1,
                                                        [] { ::pthread_setname_np(::pthread_self(), kThreadName); });
}

// For sinks that pass a level on.
spdlog::level::level_enum RankOf(LogLevel level) {
  if (level < ZQLOG_INFO) {
    return spdlog::level::debug;
  }
  if (level < ZQLOG_WARNING) {
    return spdlog::level::info;
  }
  if (level < ZQLOG_ERROR) {
    return spdlog::level::warn;
  }
  return level < ZQLOG_ALERT ? spdlog::level::err : spdlog::level::critical;
}

}  // namespace

// Counts the flush requests that have come out of the queue.
class Output::FlushCounter final : public spdlog::sinks::sink {
 public:
  std::uint64_t Request() { return ++m_requested; }

  // A request is counted only after all lines queued before it. When ticket requests are through, one of them has a
  // ticket no smaller than this one, and so was queued after everything that its caller had queued before.
  void Wait(std::uint64_t ticket) const {
    for (auto done = m_done.load(); done < ticket; done = m_done.load()) {
      m_done.wait(done);
    }
  }

  void log(const spdlog::details::log_msg&) override {}
  void flush() override {
    ++m_done;
    m_done.notify_all();
  }
  void set_pattern(const std::string&) override {}
  void set_formatter(std::unique_ptr<spdlog::formatter>) override {}

 private:
  std::atomic<std::uint64_t> m_requested{0};
  std::atomic<std::uint64_t> m_done{0};
};

Output::Output(std::size_t queueSize)
    : m_console(std::make_shared<ConsoleSink>()),
      m_file(std::make_shared<FileSink>()),
      m_syslog(std::make_shared<SyslogSink>()),
      m_flushes(std::make_shared<FlushCounter>()),
      m_generation(zq::posix::Generation()) {
  const std::array<spdlog::sink_ptr, 4> sinks{m_console, m_file, m_syslog, m_flushes};
  m_direct = std::make_unique<spdlog::logger>(kLoggerName, sinks.begin(), sinks.end());
  m_direct->set_level(spdlog::level::trace);  // what is not wanted does not come here
  try {
    m_pool = StartThread(queueSize);
    m_queueing = std::make_shared<spdlog::async_logger>(kLoggerName, sinks.begin(), sinks.end(), m_pool,
                                                        spdlog::async_overflow_policy::block);
    m_queueing->set_level(spdlog::level::trace);
  } catch (const std::exception& error) {
    ReportTrouble(std::string("cannot start the writing thread: ") + error.what() +
                  ". Every statement waits for its line to be written");
    m_pool.reset();
    m_drained = true;
  }
}

Output::~Output() { Stop(); }

void Output::Configure(const BackendOptions& options) {
  m_console->Set(options.console);
  m_file->Configure(options);
  m_syslog->SetEnabled(options.syslog);
}

template <typename Action>
bool Output::WhileQueueing(Action&& action) {
  if (m_stopping) {
    return false;
  }
  const std::shared_lock gate(m_gate);
  if (m_queueing == nullptr) {
    return false;
  }
  action(*m_queueing);
  return true;
}

// A child has a copy of the queue but no thread that writes, and of the locks of the sinks that thread may have held
// some.
bool Output::InChild() const noexcept { return zq::posix::Generation() != m_generation; }

void Output::Write(std::string_view line, LogLevel level) {
  if (InChild()) {
    zq::posix::WriteAll(STDERR_FILENO, line);
    return;
  }
  const auto log = [line, rank = RankOf(level)](spdlog::logger& logger) {
    logger.log(rank, spdlog::string_view_t(line.data(), line.size()));
  };
  if (!WhileQueueing(log)) {
    m_drained.wait(false);
    log(*m_direct);
  }
}

void Output::Flush() {
  if (InChild()) {
    return;
  }
  std::uint64_t ticket = 0;
  const bool requested = WhileQueueing([&](spdlog::logger& logger) {
    ticket = m_flushes->Request();
    logger.flush();
  });
  if (requested) {
    m_flushes->Wait(ticket);
  } else {
    m_drained.wait(false);
  }
}

void Output::Stop() {
  if (InChild()) {
    return;  // the parent writes what is queued
  }
  m_stopping = true;
  std::unique_lock gate(m_gate);
  auto pool = std::exchange(m_pool, nullptr);
  const auto queueing = std::exchange(m_queueing, nullptr);
  gate.unlock();
  if (pool == nullptr) {
    m_drained.wait(false);
    return;
  }
  pool.reset();
  m_drained = true;
  m_drained.notify_all();
}

}  // namespace zq::logging
