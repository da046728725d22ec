#include "server_text.h"

#include <fmt/format.h>

#include <cstddef>
#include <iterator>

#include "cli/format.h"
#include "instance_monitor.h"

namespace price_client {

std::string ServerText(const InstanceSnapshot& instance) {
  if (instance.state == InstanceState::kNeverSeen) {
    return {};
  }
  if (!instance.status) {
    return "no status";
  }
  const auto& status = *instance.status;
  if (instance.HasClosedInOrder()) {
    return "closed in order";
  }
  if (instance.state == InstanceState::kGone) {
    return "ended without closing";
  }
  if (status.isSilent) {
    return fmt::format("no status for {:.0f} s", status.ageSeconds);
  }
  return fmt::format("{} {}", feed::ToString(status.last.state),
                     cli::FormatDuration(static_cast<double>(status.last.uptime.count()) + status.ageSeconds));
}

std::string SegmentsText(const InstanceSnapshot& instance) {
  const auto& segments = instance.unreceivedSegments;
  if (segments.empty()) {
    return {};
  }
  constexpr std::size_t kMaxNamed = 8;
  std::string names;
  for (auto segment = segments.begin(); segment != segments.end(); ++segment) {
    const auto named = static_cast<std::size_t>(std::distance(segments.begin(), segment));
    if (named == kMaxNamed) {
      names += fmt::format(" and {} more", segments.size() - named);
      break;
    }
    names += fmt::format("{} {}", named == 0 ? "" : ",", *segment);
  }
  return fmt::format("products of segment{}{} are not received", segments.size() == 1 ? "" : "s", names);
}

std::string UntrackedText(const InstanceSnapshot& instance) {
  if (instance.totals.untracked == 0) {
    return {};
  }
  return fmt::format("{} updates of symbols beyond the first {} are counted, and not listed",
                     cli::FormatCount(instance.totals.untracked), cli::FormatCount(InstanceMonitor::kMaxSymbols));
}

}  // namespace price_client
