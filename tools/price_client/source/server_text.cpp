#include "server_text.h"

#include <fmt/format.h>

#include "format.h"

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
                     FormatDuration(static_cast<double>(status.last.uptime.count()) + status.ageSeconds));
}

}  // namespace price_client
