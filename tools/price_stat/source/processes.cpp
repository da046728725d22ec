#include "processes.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <map>

#include "system_process.h"

namespace price_stat {
namespace {

// How long a callback has been running; 0 while none is.
std::uint64_t InCallbackFor(const RowValues& context, const Snapshot& snapshot) {
  const auto* const since = context.Find("busy_since");
  // Of the future is only what somebody has scribbled there.
  const bool isBusy = since != nullptr && since->number > 0 && since->Count() < snapshot.takenMonotonic;
  return isBusy ? snapshot.takenMonotonic - since->Count() : 0;
}

std::vector<Context> ContextsOf(const Snapshot& snapshot) {
  std::vector<Context> contexts;
  std::map<std::string_view, std::size_t> byHandle;
  const auto at = [&](const RowValues& row) -> Context& {
    const auto [found, isNew] = byHandle.try_emplace(row.Label("handle"), contexts.size());
    if (isNew) {
      contexts.push_back({.name = std::string(row.Label("context")), .handle = std::string(row.Label("handle"))});
    }
    return contexts[found->second];
  };
  for (const auto& row : snapshot.rows) {
    if (IsOther(row)) {
      continue;
    }
    if (row.kind->name == "context") {
      auto& context = at(row);
      if (const auto* const loops = row.Find("loops")) {
        context.loops = loops->Count();
      }
      if (const auto busy = InCallbackFor(row, snapshot); busy >= kHangNanoseconds) {
        context.state = State::kInCallback;
        context.hangNanoseconds = busy;
      }
    } else if (row.kind->name == "engine_context") {
      at(row);
    } else if (row.kind->name == "dispatch_thread") {
      if (const auto* const thread = row.Find("thread")) {
        at(row).thread = static_cast<pid_t>(thread->number);
      }
    }
  }
  return contexts;
}

void Judge(Process& process, bool alive) {
  const auto& snapshot = *process.snapshot;
  process.contexts = ContextsOf(snapshot);
  const auto system = alive ? FindProcess(snapshot.process, snapshot.startTicks) : std::nullopt;
  process.inOurProc = system.has_value();
  if (!alive) {
    process.state = State::kEnded;
  } else if (system && (system->state == 'T' || system->state == 't')) {
    process.state = State::kStopped;
  }
  JudgeByContexts(process);
}

}  // namespace

std::string Process::Program() const {
  return snapshot ? snapshot->program : std::filesystem::path(path).stem().stem().string();
}

double Process::UptimeSeconds() const noexcept {
  return snapshot && snapshot->takenMonotonic > snapshot->startMonotonic
             ? static_cast<double>(snapshot->takenMonotonic - snapshot->startMonotonic) / 1e9
             : 0;
}

bool IsOther(const RowValues& row) {
  return !row.labels.empty() &&
         std::all_of(row.labels.begin(), row.labels.end(), [](const auto& label) { return label == "other"; });
}

std::string StateText(State state, std::uint64_t hangNanoseconds) {
  const auto hang = static_cast<double>(hangNanoseconds) / 1e9;
  switch (state) {
    case State::kInCallback:
      return fmt::format("in a callback for {:.1f} s", hang);
    case State::kNotLooping:
      return fmt::format("not looping for {:.1f} s", hang);
    default:
      return std::string(NameOf(state));
  }
}

void JudgeByContexts(Process& process) {
  for (auto& context : process.contexts) {
    if (process.state == State::kStopped || process.state == State::kEnded) {
      context.state = process.state;
      context.hangNanoseconds = 0;
    } else if (context.state != State::kRunning && context.hangNanoseconds >= process.hangNanoseconds) {
      process.state = context.state;
      process.hangNanoseconds = context.hangNanoseconds;
    }
  }
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
