// Receives with the lowest latency: the dispatch thread has a CPU of its own, given as the argument, and never waits.
// Prints how long the updates of a second were on their way.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <thread>
#include <vector>

#include "feed/price_message.h"
#include "ps_common/config/config.h"
#include "ps_common/connector/lbm_client_resource_mgr.h"
#include "ps_common/connector/shutdown_guard.h"

int main(int argc, char** argv) {
  // Room for all that may come, so that nothing is allocated while messages do.
  std::vector<std::int64_t> latencies;
  latencies.reserve(1'000'000);

  const int cpu = argc > 1 ? std::atoi(argv[1]) : 0;
  const auto config = ps_ns::Config::Parse("<Config><General/><Logging/></Config>");
  {
    // A timeout of 0 has the thread look for messages without a pause. For a spin that stops when nothing comes, take a
    // longer timeout, and set the context's option spin_time.
    ps_ns::LbmClientResourceMgr manager(config, "pin_and_spin", false, cpu, 0, {}, 0);
    const ps_ns::ShutdownGuard guard(manager);

    const auto onMessage = [&latencies](const lbm::Message& message) {
      const auto now = feed::RealTimeNanoseconds();
      const auto update = feed::DecodePriceMessage({message.Data(), message.Length()});
      if (update && latencies.size() < latencies.capacity()) {
        latencies.push_back(now - update->sentAt);
      }
    };
    std::string topic;
    const auto prices = manager.CreateClientDataReceiver({1, 1, 1, 0, "STOCKS"}, 0, onMessage, topic);
    std::this_thread::sleep_for(std::chrono::seconds(1));
  }
  if (latencies.empty()) {
    std::cerr << "nothing has come: is a server running?\n";
    return 1;
  }
  const auto median = latencies.begin() + static_cast<std::ptrdiff_t>(latencies.size() / 2);
  std::nth_element(latencies.begin(), median, latencies.end());
  std::cout << latencies.size() << " updates on CPU " << cpu << ", median latency " << *median << " ns\n";
}
