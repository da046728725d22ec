// The server's status, for whoever listens.
#pragma once

#include <chrono>
#include <cstdint>

#include "event_loop.h"
#include "feed/server_status.h"
#include "progress.h"
#include "ps_common/connector/server_instance.h"
#include "topic_publisher.h"

namespace price_server {

// Publishes the status when the loop begins to run, whenever it changes or another context has subscribed, and once a
// period.
//
// Threads: the loop's.
class StatusPublisher {
 public:
  // All arguments have to outlive the publisher. session as in feed::PriceMessage. Throws lbm::LbmError.
  StatusPublisher(lbm::Context& ctx, const ps_ns::ServerInstance& instance, std::uint64_t session,
                  const Progress& progress, EventLoop& loop, std::chrono::duration<double> period);

  feed::ServerStatus Status() const;

  // Nothing is published after the state kClosing.
  void ChangeState(feed::ServerState state);

 private:
  void Publish();

  const std::uint64_t m_session;
  const Progress& m_progress;
  const EventLoop::Clock::time_point m_start = EventLoop::Clock::now();
  feed::ServerState m_state = feed::ServerState::kOpen;
  TopicPublisher m_publisher;  // last: its events use the rest
};

}  // namespace price_server
