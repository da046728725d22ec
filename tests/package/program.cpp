// The smallest application: a price client that receives a message of a price server in the same process.
#include <lbm/lbm_cpp>

#include <chrono>
#include <future>
#include <iostream>
#include <string>
#include <utility>

#include "ps_common/config/config.h"
#include "ps_common/connector/lbm_client_resource_mgr.h"
#include "ps_common/connector/shutdown_guard.h"

int main() {
  using namespace std::chrono_literals;

  // Before the receiver, because messages arrive until that is gone.
  std::promise<std::string> promise;
  bool received = false;

  const auto config = ps_ns::Config::Parse("<config><General/></config>");
  ps_ns::LbmClientResourceMgr manager(config, "package_test", false, -1, 10, {}, 0);
  const ps_ns::ShutdownGuard guard(manager);
  ps_ns::ServerInstance server;
  server.m_marketID = server.m_submarketID = server.m_nodeID = 1;

  std::string topicName;
  const auto receiver = manager.CreateClientDataReceiver(
      server, 0,
      [&](lbm::Message message) {
        if (message.Type() == LBM_MSG_DATA && !std::exchange(received, true)) {
          promise.set_value(std::string(message.Data(), message.Length()));
        }
      },
      topicName);

  lbm::Context& context = *manager.GetContext();
  lbm::Source source(context, lbm::SourceTopic(context, topicName, lbm::SourceTopicAttributes()), {});

  // A message reaches only those that have found the source, so it is sent until it arrives.
  auto arrival = promise.get_future();
  const auto deadline = std::chrono::steady_clock::now() + 30s;
  auto status = std::future_status::timeout;
  while (status != std::future_status::ready && std::chrono::steady_clock::now() < deadline) {
    source.Send("price", 5, LBM_SRC_FLUSH);
    status = arrival.wait_for(10ms);
  }

  if (status != std::future_status::ready) {
    std::cerr << "no message arrived on " << topicName << '\n';
    return 1;
  }
  if (const std::string text = arrival.get(); text != "price") {
    std::cerr << "expected price and received " << text << '\n';
    return 1;
  }
  return 0;
}
