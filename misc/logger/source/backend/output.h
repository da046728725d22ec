// The way of a finished line to the sinks.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <shared_mutex>
#include <string_view>

#include "zq/logging/default_backend.h"

namespace spdlog {
class logger;
namespace details {
class thread_pool;
}
}  // namespace spdlog

namespace zq::logging {

class ConsoleSink;
class FileSink;
class SyslogSink;

inline constexpr std::size_t kDefaultQueueSize = 8192;  // lines

// Lines go through a bounded queue to one writing thread; after Stop, or without the thread when it cannot be started,
// each goes straight to the sinks. In a child that fork made, lines go straight to standard error, and there is nothing
// to wait for.
//
// Threads: all functions may be called from any thread at the same time.
class Output {
 public:
  explicit Output(std::size_t queueSize);
  ~Output();

  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  // Lines that are still queued go where the new settings say.
  void Configure(const BackendOptions& options);

  // line is complete, its end included. Waits while the queue is full.
  void Write(std::string_view line, LogLevel level);

  // Returns when the caller's lines so far have reached the sinks.
  void Flush();

  // Returns when every line so far has reached the sinks and the writing thread has ended. Idempotent.
  void Stop();

 private:
  class FlushCounter;

  bool InChild() const noexcept;
  // Runs action with the queueing logger unless there is none any more; returns whether it ran.
  template <typename Action>
  bool WhileQueueing(Action&& action);

  const std::shared_ptr<ConsoleSink> m_console;
  const std::shared_ptr<FileSink> m_file;
  const std::shared_ptr<SyslogSink> m_syslog;
  const std::shared_ptr<FlushCounter> m_flushes;
  const unsigned m_generation;  // see zq::posix::Generation
  std::unique_ptr<spdlog::logger> m_direct;

  // Set first by Stop: without it, threads that keep entering the gate could keep Stop out for ever.
  std::atomic<bool> m_stopping{false};
  std::atomic<bool> m_drained{false};
  std::shared_mutex m_gate;
  // Under m_gate; empty from Stop on.
  std::shared_ptr<spdlog::details::thread_pool> m_pool;
  std::shared_ptr<spdlog::logger> m_queueing;
};

}  // namespace zq::logging
