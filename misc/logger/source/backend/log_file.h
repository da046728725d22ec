// The log file.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "zq/logging/default_backend.h"
#include "zq/posix/descriptor.h"

namespace zq::logging {

// Writes lines to a file, with one system call a line and no buffer. Trouble is reported when it begins and when it is
// over. Every further line tries to write again; the file is opened, and its place looked at, at most once a second.
//
// Other processes may write, move, delete and rotate the same file. It is rotated under its lock, by whoever finds it
// still in its place then; nobody waits for the lock, so a process that is stopped while it has it holds up no other.
//
// Threads: one at a time.
class LogFile {
 public:
  // Takes what concerns the file. One with another path than before is opened at once.
  void Configure(const BackendOptions& options);

  // line is complete, its end included; time is when it was made.
  void Write(std::string_view line, std::chrono::system_clock::time_point time);

 private:
  // Opens the file when it is not open or no longer in its place.
  void Look();
  void Open();
  bool IsInPlace();
  bool WriteLine(std::string_view line);

  bool IsRotationDue(std::size_t size, std::chrono::system_clock::time_point time) const;
  void Rotate();
  bool MoveAside();

  void Failed(const char* action, int error);

  std::string m_path;
  std::uint64_t m_sizeMax = 0;
  bool m_daily = false;
  unsigned int m_kept = 1;

  zq::posix::Descriptor m_file;
  bool m_inPlace = false;  // it is what stood at m_path at the last look; otherwise its lines count as lost
  bool m_regular = false;
  dev_t m_device = 0;
  ino_t m_inode = 0;
  std::uint64_t m_size = 0;                          // without what other processes have written since the last look
  bool m_torn = false;                               // the last line in the file is incomplete
  std::chrono::system_clock::time_point m_endOfDay;  // of the day of the lines in it; with m_daily

  bool m_failing = false;
  bool m_rotationFailing = false;
  std::uint64_t m_lostLines = 0;
  std::chrono::steady_clock::time_point m_nextLook;
  std::chrono::steady_clock::time_point m_nextRotation;
};

}  // namespace zq::logging
