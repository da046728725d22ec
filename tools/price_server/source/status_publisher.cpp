#include "status_publisher.h"

#include "ps_common/connector/topic_names.h"

namespace price_server {

StatusPublisher::StatusPublisher(lbm::Context& ctx, const ps_ns::ServerInstance& instance, std::uint64_t session,
                                 const Progress& progress, EventLoop& loop, std::chrono::duration<double> period)
    : m_session(session),
      m_progress(progress),
      m_publisher(ctx, ps_ns::TopicNames::CreateServerStatusTopic(instance),
                  [this, &loop] { loop.Post([this] { Publish(); }); }) {
  loop.Post([this] { Publish(); });
  loop.RunEvery(std::chrono::duration_cast<EventLoop::Clock::duration>(period), [this] { Publish(); });
}

feed::ServerStatus StatusPublisher::Status() const {
  feed::ServerStatus status;
  status.session = m_session;
  status.state = m_state;
  status.time = feed::UtcNow();
  status.updatesSent = m_progress.UpdatesSent();
  status.uptime = std::chrono::duration_cast<std::chrono::seconds>(EventLoop::Clock::now() - m_start);
  return status;
}

void StatusPublisher::ChangeState(feed::ServerState state) {
  m_state = state;
  m_publisher.Publish(feed::Encode(Status()));
}

void StatusPublisher::Publish() {
  if (m_state != feed::ServerState::kClosing) {
    m_publisher.Publish(feed::Encode(Status()));
  }
}

}  // namespace price_server
