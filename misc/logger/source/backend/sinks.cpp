#include "backend/sinks.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "zq/posix/error.h"
#include "zq/posix/file.h"

namespace zq::logging {
namespace {

// A missing file is looked for no more often than this.
constexpr std::chrono::seconds kOpenInterval{1};

constexpr mode_t kFileMode = 0644;

std::string_view LineOf(const spdlog::details::log_msg& message) {
  return {message.payload.data(), message.payload.size()};
}

}  // namespace

void ReportTrouble(const std::string& what) { zq::posix::WriteAll(STDERR_FILENO, "zq::logging: " + what + '\n'); }

void ConsoleSink::SetEnabled(bool enabled) {
  const std::lock_guard lock(mutex_);
  m_enabled = enabled;
}

void ConsoleSink::sink_it_(const spdlog::details::log_msg& message) {
  if (m_enabled) {
    zq::posix::WriteAll(STDERR_FILENO, LineOf(message));
  }
}

void FileSink::SetPath(const std::string& path) {
  // Absolute, so that opening it again finds the same place whatever the process made its working directory.
  std::error_code error;
  const std::string absolute = path.empty() ? path : std::filesystem::absolute(path, error).string();
  const std::string& wanted = error ? path : absolute;
  const std::lock_guard lock(mutex_);
  if (wanted == m_path) {
    return;
  }
  m_file = {};
  m_torn = false;
  m_failing = false;
  m_lostLines = 0;
  m_path = wanted;
  if (!m_path.empty()) {
    Open();
  }
}

void FileSink::sink_it_(const spdlog::details::log_msg& message) {
  if (m_path.empty()) {
    return;
  }
  if (!m_file && std::chrono::steady_clock::now() >= m_nextOpen) {
    Open();
  }
  if (!m_file) {
    ++m_lostLines;
    return;
  }
  if (m_torn) {
    m_torn = zq::posix::WriteAll(m_file.Get(), "\n").error != 0;
  }
  const auto result = zq::posix::WriteAll(m_file.Get(), LineOf(message));
  if (result.error != 0) {
    m_torn = m_torn || result.written > 0;
    ++m_lostLines;
    Failed("write", result.error);
  } else if (m_failing) {
    m_failing = false;
    ReportTrouble("log file " + m_path +
                  " is written again. Lines that are missing there: " + std::to_string(m_lostLines));
    m_lostLines = 0;
  }
}

void FileSink::Open() {
  m_file =
      zq::posix::Descriptor(::open(m_path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, kFileMode));
  if (!m_file) {
    m_nextOpen = std::chrono::steady_clock::now() + kOpenInterval;
    Failed("open", errno);
  }
}

void FileSink::Failed(const char* action, int error) {
  if (!m_failing) {
    m_failing = true;
    ReportTrouble(std::string("cannot ") + action + " log file " + m_path + ": " + zq::posix::ErrorText(error) +
                  ". Lines will be missing there until that is put right");
  }
}

}  // namespace zq::logging
