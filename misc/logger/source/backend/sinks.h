// Where lines go.
#pragma once

#include <spdlog/sinks/base_sink.h>

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

#include "zq/posix/descriptor.h"

namespace zq::logging {

// Tells the operator about the log itself, on standard error.
void ReportTrouble(const std::string& what);

// Writes each record's payload, a finished line, to standard error. What cannot be written is dropped: there is no
// better place to tell.
class ConsoleSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  void SetEnabled(bool enabled);

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override;
  void flush_() override {}

 private:
  bool m_enabled = false;  // under the base's mutex, like everything below it here and in FileSink
};

// Writes each record's payload, a finished line, to a file, with one system call a line and no buffer. Trouble is
// reported when it begins and when it is over; every further line tries again, but a file that cannot be opened only
// once a second.
class FileSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  // Empty for no file. Another path than before is opened at once.
  void SetPath(const std::string& path);

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override;
  void flush_() override {}

 private:
  void Open();
  void Failed(const char* action, int error);

  std::string m_path;
  zq::posix::Descriptor m_file;
  bool m_failing = false;
  bool m_torn = false;  // the last line in the file is incomplete
  std::uint64_t m_lostLines = 0;
  std::chrono::steady_clock::time_point m_nextOpen;
};

}  // namespace zq::logging
