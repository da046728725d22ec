// What the system says of processes and their threads.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace price_stat {

struct SystemThread {
  pid_t id = 0;
  std::string name;
  char state = '?';                  // as in /proc: R, S, D, T, ...
  std::uint64_t cpuNanoseconds = 0;  // that it has used since its start
  std::uint64_t startTicks = 0;
  int lastCpu = -1;         // on which it ran last
  std::string allowedCpus;  // such as "0-3,7"; empty when it is not known
};

// The process; its name and times are those of the whole process. Nothing when there is none, or when it is another one
// than the one that started at this time.
std::optional<SystemThread> FindProcess(pid_t process, std::uint64_t startTicks);

// Its threads, sorted by id.
std::vector<SystemThread> ThreadsOf(pid_t process);

// Whether the thread sleeps in a system call that waits for descriptors or for time to pass. False when it does not,
// and when the system does not tell.
bool WaitsForDescriptors(pid_t process, pid_t thread);

// Of the text of a stat file in /proc; nothing when it is no such text.
std::optional<SystemThread> ParseStat(std::string_view text);

}  // namespace price_stat
