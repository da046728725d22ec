// The processes that have pages in a directory, and what state they are in.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zq/statistics/snapshot.h"

namespace price_stat {

enum class State : std::uint8_t {
  kRunning,
  kInCallback,  // for longer than callbacks should take
  kNotLooping,  // nobody has processed a context's events for a time, nor waits for any
  kStopped,     // by a signal or a debugger
  kEnded,       // its page was left behind: numbers are the last ones
  kUnreadable,  // its page cannot be read
};

// Of what callbacks and pauses between two loops may take before somebody should know.
constexpr std::uint64_t kHangNanoseconds = 1'000'000'000;

struct Process {
  std::string path;  // of the page
  State state = State::kRunning;
  std::uint64_t hangNanoseconds = 0;                 // in a callback, or not looping
  std::string fault;                                 // why there is no snapshot
  std::optional<zq::statistics::Snapshot> snapshot;  // always there when the state is not kUnreadable
  bool inOurProc = false;                            // /proc is about this process: same machine and process namespace

  // The program's name and process number, as far as the page or its name tells.
  std::string Name() const;
  // The state for people, such as "in a callback for 12.0 s".
  std::string StateText() const;
  bool IsAlive() const noexcept { return state != State::kEnded && state != State::kUnreadable; }
};

// The stable name of a state, for programs: "running", "in_callback", ...
std::string_view NameOf(State state);

// Looks at all pages of a directory, sorted by path. One look does not find those that are not looping. Throws
// std::system_error when the directory cannot be read; what is wrong with a page is the process's fault text.
std::vector<Process> ReadProcesses(const std::string& directory);

// The process in another look; null when it is not there.
const Process* FindSame(const Process& process, const std::vector<Process>& look);

}  // namespace price_stat
