#include "processes.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <filesystem>

#include "system_process.h"

namespace price_stat {
namespace {

using zq::statistics::Snapshot;

// How long the longest of the callbacks that run now has run.
std::uint64_t InCallbackFor(const Snapshot& snapshot) {
  std::uint64_t longest = 0;
  for (const auto* const context : snapshot.Of("context")) {
    const auto* const since = context->Find("busy_since");
    // Of the future is only what somebody has scribbled there.
    if (since != nullptr && since->number > 0 && since->Count() < snapshot.takenMonotonic) {
      longest = std::max(longest, snapshot.takenMonotonic - since->Count());
    }
  }
  return longest;
}

void Judge(Process& process, bool alive) {
  const auto& snapshot = *process.snapshot;
  const auto system = FindProcess(snapshot.process, snapshot.startTicks);
  process.inOurProc = alive && system.has_value();
  if (!alive) {
    process.state = State::kEnded;
  } else if (system && (system->state == 'T' || system->state == 't')) {
    process.state = State::kStopped;
  } else if (const auto busy = InCallbackFor(snapshot); busy >= kHangNanoseconds) {
    process.state = State::kInCallback;
    process.hangNanoseconds = busy;
  }
}

}  // namespace

std::string Process::Name() const {
  return snapshot ? fmt::format("{}.{}", snapshot->program, snapshot->process)
                  : std::filesystem::path(path).stem().string();
}

std::string Process::StateText() const {
  const auto hang = static_cast<double>(hangNanoseconds) / 1e9;
  switch (state) {
    case State::kRunning:
      return "running";
    case State::kInCallback:
      return fmt::format("in a callback for {:.1f} s", hang);
    case State::kNotLooping:
      return fmt::format("not looping for {:.1f} s", hang);
    case State::kStopped:
      return "stopped";
    case State::kEnded:
      return "ended";
    case State::kUnreadable:
      return "unreadable";
  }
  return "";
}

std::string_view NameOf(State state) {
  switch (state) {
    case State::kRunning:
      return "running";
    case State::kInCallback:
      return "in_callback";
    case State::kNotLooping:
      return "not_looping";
    case State::kStopped:
      return "stopped";
    case State::kEnded:
      return "ended";
    case State::kUnreadable:
      return "unreadable";
  }
  return "";
}

std::vector<Process> ReadProcesses(const std::string& directory) {
  std::vector<Process> processes;
  for (const auto& page : zq::statistics::ListPages(directory)) {
    Process process{.path = page.path};
    try {
      process.snapshot = zq::statistics::ReadPage(page.path);
      Judge(process, page.alive);
    } catch (const std::exception& error) {
      if (::access(page.path.c_str(), F_OK) != 0) {
        continue;  // it went with its process meanwhile
      }
      process.state = State::kUnreadable;
      process.fault = error.what();
    }
    processes.push_back(std::move(process));
  }
  return processes;
}

const Process* FindSame(const Process& process, const std::vector<Process>& look) {
  const auto found = std::find_if(look.begin(), look.end(), [&](const Process& other) {
    return other.path == process.path && other.snapshot.has_value() == process.snapshot.has_value() &&
           (!process.snapshot || (other.snapshot->process == process.snapshot->process &&
                                  other.snapshot->startMonotonic == process.snapshot->startMonotonic));
  });
  return found == look.end() ? nullptr : &*found;
}

}  // namespace price_stat
