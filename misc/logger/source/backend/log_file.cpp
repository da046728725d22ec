#include "backend/log_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <system_error>
#include <utility>

#include "backend/trouble.h"
#include "zq/posix/error.h"
#include "zq/posix/file.h"

namespace zq::logging {
namespace {

using std::chrono::steady_clock;
using std::chrono::system_clock;

// Between two looks at the file's place, and between two attempts at what did not succeed.
constexpr std::chrono::seconds kInterval{1};

constexpr mode_t kFileMode = 0644;

// The next local midnight. Days are not always 24 hours long.
system_clock::time_point EndOfDay(system_clock::time_point time) {
  const std::time_t now = system_clock::to_time_t(time);
  std::tm local{};
  ::localtime_r(&now, &local);
  ++local.tm_mday;
  local.tm_hour = local.tm_min = local.tm_sec = 0;
  local.tm_isdst = -1;
  return system_clock::from_time_t(std::mktime(&local));
}

}  // namespace

void LogFile::Configure(const BackendOptions& options) {
  // Absolute, so that opening it again finds the same place whatever the process made its working directory.
  std::error_code error;
  const std::string absolute =
      options.file.empty() ? options.file : std::filesystem::absolute(options.file, error).string();
  const std::string& wanted = error ? options.file : absolute;
  m_sizeMax = options.fileSizeMax;
  if (options.fileDaily && !m_daily) {
    m_endOfDay = EndOfDay(system_clock::now());
  }
  m_daily = options.fileDaily;
  m_kept = std::max(options.filesKept, 1U);
  if (wanted == m_path) {
    return;
  }
  m_path = wanted;
  m_file = {};
  m_inPlace = m_failing = m_rotationFailing = false;
  m_lostLines = 0;
  m_nextRotation = {};
  if (!m_path.empty()) {
    Look();
  }
}

void LogFile::Write(std::string_view line, system_clock::time_point time) {
  if (m_path.empty()) {
    return;
  }
  if (steady_clock::now() >= m_nextLook) {
    Look();
  }
  if (IsRotationDue(line.size(), time)) {
    Rotate();
  }
  if (m_daily && m_size == 0) {
    m_endOfDay = EndOfDay(time);
  }
  if (!m_file || !WriteLine(line) || !m_inPlace) {
    ++m_lostLines;
  } else if (m_failing) {
    m_failing = false;
    ReportTrouble("log file " + m_path +
                  " is written again. Lines that are missing there: " + std::to_string(m_lostLines));
    m_lostLines = 0;
  }
}

void LogFile::Look() {
  m_nextLook = steady_clock::now() + kInterval;
  m_inPlace = m_file && IsInPlace();
  if (!m_inPlace) {
    Open();
  }
}

bool LogFile::IsInPlace() {
  struct stat status {};
  if (::stat(m_path.c_str(), &status) != 0 || status.st_dev != m_device || status.st_ino != m_inode) {
    return false;
  }
  m_size = static_cast<std::uint64_t>(status.st_size);
  return true;
}

// When that fails the lines go on to the file that was moved, if there is one: better there than nowhere.
void LogFile::Open() {
  zq::posix::Descriptor file(::open(m_path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, kFileMode));
  struct stat status {};
  m_inPlace = file && ::fstat(file.Get(), &status) == 0;
  if (!m_inPlace) {
    return Failed("open", errno);
  }
  m_file = std::move(file);
  m_torn = false;
  m_regular = S_ISREG(status.st_mode);
  m_device = status.st_dev;
  m_inode = status.st_ino;
  m_size = static_cast<std::uint64_t>(status.st_size);
  if (m_daily) {
    m_endOfDay = EndOfDay(system_clock::from_time_t(status.st_mtime));
  }
}

bool LogFile::WriteLine(std::string_view line) {
  if (m_torn) {
    m_torn = zq::posix::WriteAll(m_file.Get(), "\n").error != 0;
  }
  const auto result = zq::posix::WriteAll(m_file.Get(), line);
  m_size += result.written;
  if (result.error != 0) {
    m_torn = m_torn || result.written > 0;
    Failed("write", result.error);
  }
  return result.error == 0;
}

// ---- Rotation ----

bool LogFile::IsRotationDue(std::size_t size, system_clock::time_point time) const {
  if (!m_inPlace || !m_regular || m_size == 0) {
    return false;
  }
  return (m_sizeMax != 0 && m_size + size > m_sizeMax) || (m_daily && time >= m_endOfDay);
}

void LogFile::Rotate() {
  if (steady_clock::now() < m_nextRotation) {
    return;
  }
  m_nextRotation = steady_clock::now() + kInterval;
  // A file system without locks is taken for one on which nobody else rotates.
  if (::flock(m_file.Get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
    return;
  }
  const bool isAside = !IsInPlace() || MoveAside();
  ::flock(m_file.Get(), LOCK_UN);
  if (!isAside) {
    return;
  }
  m_nextRotation = {};
  Open();
}

bool LogFile::MoveAside() {
  // From the oldest on, so that a failure leaves the others in their places and overwrites nothing.
  for (unsigned int number = m_kept; number > 0; --number) {
    const std::string from = number == 1 ? m_path : m_path + '.' + std::to_string(number - 1);
    const std::string to = m_path + '.' + std::to_string(number);
    if (::rename(from.c_str(), to.c_str()) != 0 && errno != ENOENT) {
      const int error = errno;
      if (!m_rotationFailing) {
        m_rotationFailing = true;
        ReportTrouble("cannot rotate log file " + m_path + ": renaming " + from + " to " + to + ": " +
                      zq::posix::ErrorText(error) + ". It goes on growing until that is put right");
      }
      return false;
    }
  }
  if (m_rotationFailing) {
    m_rotationFailing = false;
    ReportTrouble("log file " + m_path + " is rotated again");
  }
  return true;
}

void LogFile::Failed(const char* action, int error) {
  if (!m_failing) {
    m_failing = true;
    ReportTrouble(std::string("cannot ") + action + " log file " + m_path + ": " + zq::posix::ErrorText(error) +
                  ". Lines will be missing there until that is put right");
  }
}

}  // namespace zq::logging
