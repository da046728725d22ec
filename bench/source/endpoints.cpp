// What the endpoints of many server instances cost on one manager: six for each instance, as a client makes them.
#include <malloc.h>

#include <chrono>
#include <string>
#include <vector>

#include "bench/bench.h"
#include "ps_common/config/config.h"
#include "ps_common/connector/lbm_client_resource_mgr.h"
#include "test_support/private_domain.h"
#include "zq/logging/log_level.h"

namespace {

constexpr int kEndpointsPerInstance = 6;

std::size_t HeapBytes() {
  const auto info = ::mallinfo2();
  return info.uordblks + info.hblkhd;
}

struct Endpoints {
  std::vector<ps_ns::SourcePtr> sources;
  std::vector<ps_ns::ReceiverPtr> receivers;

  void Create(ps_ns::LbmClientResourceMgr& manager, int number) {
    const ps_ns::ServerInstance instance{static_cast<ps_ns::MarketID_t>(number % 100),
                                         static_cast<ps_ns::SubmarketID_t>(number / 100 % 100),
                                         static_cast<ps_ns::NodeID_t>(number / 10'000), 0, "bench"};
    const auto ignore = [](const lbm::Message&) {};
    std::string topic;
    sources.push_back(manager.CreateClientSource(instance));
    receivers.push_back(manager.CreateClientReceiver(instance, ignore, topic));
    receivers.push_back(manager.CreateClientDataReceiver(instance, 0, ignore, topic));
    receivers.push_back(manager.CreateClientProductInfoReceiver(instance, ignore, topic));
    receivers.push_back(manager.CreateClientRFQ_Receiver(instance, ignore, topic));
    receivers.push_back(manager.CreateClientNewsReceiver(instance, ignore, topic));
  }
};

// Time is per endpoint.
void CreateEndpoints(benchmark::State& state) {
  if (state.range(0) != 1000) {
    bench::CompareWith(state, "CreateEndpoints/1000/iterations:1/manual_time");
  }
  zq::logging::g_minLogLevel = zq::logging::ZQLOG_WARNING;
  const test_support::PrivateDomain domain;
  const int instances = static_cast<int>(state.range(0));
  const double endpoints = static_cast<double>(instances) * kEndpointsPerInstance;
  const auto config = ps_ns::Config::Parse("<Client><Logging/><General/></Client>");
  for (auto _ : state) {
    const std::size_t heapBefore = HeapBytes();
    ps_ns::LbmClientResourceMgr manager(config, "bench", false, -1, 100, {}, 0);
    Endpoints made;
    const auto start = std::chrono::steady_clock::now();
    for (int number = 0; number < instances; ++number) {
      made.Create(manager, number);
    }
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    state.SetIterationTime(elapsed.count() / endpoints);
    state.counters["bytes_per_endpoint"] = static_cast<double>(HeapBytes() - heapBefore) / endpoints;
    manager.Shutdown();
    made = {};
  }
}

BENCHMARK(CreateEndpoints)->Arg(1000)->Arg(10'000)->Iterations(1)->UseManualTime();

}  // namespace
