#include "looks.h"

#include <algorithm>
#include <string>

namespace price_stat {

Progress::Progress(const Process* before, const Process& now) {
  if (before == nullptr || !before->snapshot || !now.snapshot ||
      now.snapshot->takenMonotonic <= before->snapshot->takenMonotonic) {
    return;
  }
  m_seconds = static_cast<double>(now.snapshot->takenMonotonic - before->snapshot->takenMonotonic) / 1e9;
  for (const auto& row : before->snapshot->rows) {
    m_before.emplace(row.id, &row);
  }
}

std::optional<double> Progress::RateOf(const RowValues& row, std::size_t field) const {
  const auto found = m_before.find(row.id);
  if (found == m_before.end() || row.kind->fields[field].type != FieldType::kCounter) {
    return std::nullopt;
  }
  const auto* const before = found->second->Find(row.kind->fields[field].name);
  if (before == nullptr || found->second->kind->name != row.kind->name || before->Count() > row.values[field].Count()) {
    return std::nullopt;
  }
  return static_cast<double>(row.values[field].Count() - before->Count()) / m_seconds;
}

std::vector<Process> Looks::Take() {
  auto processes = ReadProcesses(m_directory);
  if (!m_names.empty()) {
    std::erase_if(processes, [this](const Process& process) {
      const auto isMeant = [&](const std::string& name) {
        return name == process.Program() || (process.snapshot && name == std::to_string(process.snapshot->process));
      };
      return std::none_of(m_names.begin(), m_names.end(), isMeant);
    });
  }
  m_hangs.Judge(processes);
  return processes;
}

std::vector<Process> Looks::TakeUntilSure(cli::SignalWait& signals) {
  using Clock = cli::SignalWait::Clock;
  constexpr auto kStep = std::chrono::milliseconds(50);
  // A little longer, so that the last look is far enough from the first one.
  const auto end = Clock::now() + std::chrono::nanoseconds(kHangNanoseconds) + kStep;
  auto processes = Take();
  while (m_hangs.HasDoubts() && Clock::now() < end && !cli::AsksToStop(signals.WaitUntil(Clock::now() + kStep))) {
    processes = Take();
  }
  return processes;
}

}  // namespace price_stat
