// Where lines go.
#pragma once

#include <spdlog/details/null_mutex.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/syslog_sink.h>

#include <memory>
#include <mutex>
#include <string>

#include "backend/log_file.h"
#include "zq/logging/default_backend.h"

namespace zq::logging {

// Each of these takes records whose payload is a finished line.

// Writes lines to standard error. What cannot be written is dropped: there is no better place to tell.
class ConsoleSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  void Set(Console console);

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override;
  void flush_() override {}

 private:
  Console m_console = Console::kOff;  // under the base's mutex, like everything below it here and in the other sinks
  std::string m_line;                 // keeps its memory from one line for the journal to the next
};

class FileSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  void Configure(const BackendOptions& options);

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override;
  void flush_() override {}

 private:
  LogFile m_file;
};

// Hands lines to syslog under the program's name, which the process's other users of syslog get too: the C library has
// one setting for all. It drops lines without a word when nobody takes them, so that is looked at when the sink is
// switched on.
class SyslogSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  void SetEnabled(bool enabled);

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override;
  void flush_() override {}

 private:
  std::unique_ptr<spdlog::sinks::syslog_sink<spdlog::details::null_mutex>> m_syslog;
};

}  // namespace zq::logging
