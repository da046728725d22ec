#include "client.h"

#include <boost/property_tree/exceptions.hpp>
#include <cstddef>
#include <span>
#include <string>

#include "feed/exit_code.h"
#include "feed/price_message.h"
#include "lbm/message.h"
#include "ps_common/config/config.h"

namespace price_client {
namespace {

constexpr unsigned kProcessEventTimeoutMs = 100;

ps_ns::ConfigPtr LoadConfig(const std::string& path) {
  try {
    return ps_ns::Config::Load(path);
  } catch (const ps_ns::ConfigError& error) {
    throw feed::UsageError(error.what());
  }
}

// Runs on the dispatch thread.
void Deliver(InstanceMonitor& monitor, unsigned segment, const lbm::Message& message) noexcept {
  switch (message.Type()) {
    case LBM_MSG_DATA:
      monitor.OnData(segment, std::as_bytes(std::span(message.Data(), message.Length())), feed::RealTimeNanoseconds());
      break;
    case LBM_MSG_BOS:
      monitor.OnSessionBegin(segment);
      break;
    case LBM_MSG_EOS:
      monitor.OnSessionEnd(segment);
      break;
    case LBM_MSG_UNRECOVERABLE_LOSS:
      monitor.OnLoss(1);
      break;
    case LBM_MSG_UNRECOVERABLE_LOSS_BURST:
      monitor.OnLoss(message.Length());
      break;
    default:
      break;
  }
}

}  // namespace

Client::Client(const Options& options) {
  const auto config = LoadConfig(options.configFile);
  // Called once after each round of event processing; there is no work to do.
  const auto beat = [this] {
    m_heartbeat.fetch_add(1, std::memory_order_relaxed);
    return false;
  };
  try {
    m_manager = std::make_unique<ps_ns::LbmClientResourceMgr>(config, options.contextName, options.onload, options.cpu,
                                                              kProcessEventTimeoutMs, beat, 1);
  } catch (const boost::property_tree::ptree_error& error) {
    throw feed::UsageError(options.configFile + ": " + error.what());
  }
  try {
    for (const auto& instance : options.instances) {
      auto* monitor =
          m_monitors.emplace_back(std::make_unique<InstanceMonitor>(instance.ToString(), options.segments)).get();
      for (unsigned short segment = 0; segment < options.segments; ++segment) {
        std::string topicName;
        m_receivers.push_back(m_manager->CreateClientDataReceiver(
            instance, segment, [monitor, segment](lbm::Message message) { Deliver(*monitor, segment, message); },
            topicName));
      }
    }
  } catch (...) {
    Stop();
    throw;
  }
}

std::vector<InstanceSnapshot> Client::Read() const {
  std::vector<InstanceSnapshot> snapshots;
  snapshots.reserve(m_monitors.size());
  for (const auto& monitor : m_monitors) snapshots.push_back(monitor->Read());
  return snapshots;
}

void Client::Stop() {
  if (!m_manager) return;
  m_manager->Shutdown();
  // Receivers go before the context that they were made from.
  m_receivers.clear();
  m_manager.reset();
}

}  // namespace price_client
