#include "hint.h"

#include "cli/one_line.h"

namespace price_client {

std::string HintFor(const InstanceSnapshot& instance, const ClientSnapshot& client) {
  if (instance.totals.updates > 0 || client.isPaused) {
    return {};
  }
  switch (instance.state) {
    case InstanceState::kNeverSeen:
      return "no such server; check its numbers, its user and LBM_RUNTIME_DIR" +
             (client.directory.empty() ? "" : " (here " + cli::OneLine(client.directory) + ')');
    case InstanceState::kGone:
      return "the server has ended; start it again";
    case InstanceState::kUp:
    case InstanceState::kBack:
      return instance.liveSegments < instance.segments
                 ? "the server has fewer segments than are received here; give its --segments, or auto"
                 : "the server is there and sends no prices; had it sent all before this client came?";
  }
  return {};
}

}  // namespace price_client
