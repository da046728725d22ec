// The processes that have pages in a directory, and what state they are in.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zq/statistics/snapshot.h"

namespace price_stat {

// What pages hold.
using zq::statistics::Distribution;
using zq::statistics::Field;
using zq::statistics::FieldType;
using zq::statistics::Kind;
using zq::statistics::RowValues;
using zq::statistics::Snapshot;
using zq::statistics::Value;

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

// A messaging context of a process.
struct Context {
  std::string name;    // may be empty
  std::string handle;  // tells it from others of the process
  State state = State::kRunning;
  std::uint64_t hangNanoseconds = 0;   // in a callback, or not looping
  std::optional<std::uint64_t> loops;  // how often somebody has processed its events, where that is counted
  pid_t thread = 0;                    // that does it; 0: not known
};

struct Process {
  std::string path;  // of the page
  State state = State::kRunning;
  std::uint64_t hangNanoseconds = 0;  // the longest of its contexts
  std::string fault;                  // why there is no snapshot
  std::optional<Snapshot> snapshot;   // always there when the state is not kUnreadable
  std::vector<Context> contexts;      // in the order of their rows
  bool inOurProc = false;             // /proc is about this process: same machine and process namespace

  // The program's name, as far as the page or its name tells.
  std::string Program() const;
  bool IsAlive() const noexcept { return state != State::kEnded && state != State::kUnreadable; }
  double UptimeSeconds() const noexcept;  // since the page was made, which is shortly after the start
};

// Whether the row counts what had no room in rows of its own.
bool IsOther(const RowValues& row);

// The stable name of a state, for programs: "running", "in_callback", ...
std::string_view NameOf(State state);

// The state for people, such as "in a callback for 12.0 s".
std::string StateText(State state, std::uint64_t hangNanoseconds);

// Those that hang give their states to the process, the longest hang first; not to one that is stopped or has ended.
void JudgeByContexts(Process& process);

// Looks at all pages of a directory, sorted by path. One look does not find those that are not looping: HangWatch does.
// Throws std::system_error when the directory cannot be read; what is wrong with a page is the process's fault text.
std::vector<Process> ReadProcesses(const std::string& directory);

// The process in another look; null when it is not there.
const Process* FindSame(const Process& process, const std::vector<Process>& look);

}  // namespace price_stat
