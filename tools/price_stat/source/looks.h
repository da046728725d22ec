// Several looks at the processes, one after the other.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "cli/signal_wait.h"
#include "hang_watch.h"
#include "processes.h"

namespace price_stat {

// What has become of a process's counters between two looks at it.
class Progress {
 public:
  // before: null when there was no earlier look at this process. Both have to outlive it.
  Progress(const Process* before, const Process& now);

  // By how much the counter has grown in a second; nothing when it is not known: the row is new, the field is no
  // counter, or something else than counting has been done to it.
  std::optional<double> RateOf(const RowValues& row, std::size_t field) const;

 private:
  std::unordered_map<std::uint64_t, const RowValues*> m_before;  // by id
  double m_seconds = 0;
};

// Takes looks, and remembers what it takes to tell who hangs.
class Looks {
 public:
  // names: programs or process numbers, of those that are to be seen; none: all.
  Looks(std::string directory, std::vector<std::string> names)
      : m_directory(std::move(directory)), m_names(std::move(names)) {}

  // Throws std::system_error when the directory cannot be read.
  std::vector<Process> Take();

  // Takes looks until it is known who hangs, at most for hangs' minimum duration. Throws likewise; ends early when a
  // signal asks to stop.
  std::vector<Process> TakeUntilSure(cli::SignalWait& signals);

 private:
  std::string m_directory;
  std::vector<std::string> m_names;
  HangWatch m_hangs;
};

}  // namespace price_stat
