// The client's side of the connector: what is subscribed to, and what has come of it.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "instance_monitor.h"
#include "options.h"
#include "ps_common/connector/lbm_client_resource_mgr.h"
#include "snapshot.h"

namespace price_client {

// Receives every segment of every instance from construction until Stop.
//
// Threads: for one thread, which has to have blocked the signals that it waits for.
class Client {
 public:
  // Throws feed::UsageError for a configuration that cannot be used, lbm::LbmError when messaging is not possible.
  explicit Client(const Options& options);
  ~Client() { Stop(); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // What every instance has delivered so far. After Stop this is final.
  std::vector<InstanceSnapshot> Read() const;

  // Grows while the dispatch thread is at work, several times a second even when nothing arrives.
  std::uint64_t Heartbeat() const { return m_heartbeat.load(std::memory_order_relaxed); }

  // Nothing arrives any more when it returns. May be called more than once.
  void Stop();

 private:
  std::vector<std::unique_ptr<InstanceMonitor>> m_monitors;
  std::atomic<std::uint64_t> m_heartbeat{0};
  std::unique_ptr<ps_ns::LbmClientResourceMgr> m_manager;
  std::vector<ps_ns::ReceiverPtr> m_receivers;
};

}  // namespace price_client
