#include "server_life.h"

namespace price_client {

void ServerLife::SourceCame(Topic topic) {
  ++LiveSources(topic);
  Settle();
}

void ServerLife::SourceWent(Topic topic) {
  auto& live = LiveSources(topic);
  if (live == 0) {
    return;
  }
  --live;
  if (topic == Topic::kStatus) {
    m_sessions.SourceEnded();
  }
  Settle();
}

void ServerLife::PricesDropped() {
  m_livePriceSources = 0;
  Settle();
}

void ServerLife::TakeStatus(const feed::ServerStatus& status, Clock::time_point now) {
  // Whatever sends is alive, announced or not.
  if (m_liveStatusSources == 0) {
    SourceCame(Topic::kStatus);
  }
  const auto order = m_sessions.Take(status.session);
  if (order == SessionTracker::Order::kStale) {
    return;
  }
  // The first status of a life belongs to the run that was counted when the server came up.
  if (order == SessionTracker::Order::kNext && m_status) {
    ++m_run;
  }
  m_status = status;
  m_statusAt = now;
}

void ServerLife::Settle() {
  if (IsAlive(m_state) == HasLiveSource()) {
    return;
  }
  if (IsAlive(m_state)) {
    m_state = InstanceState::kGone;
    return;
  }
  m_state = m_state == InstanceState::kNeverSeen ? InstanceState::kUp : InstanceState::kBack;
  m_status.reset();
  ++m_run;
}

std::optional<StatusSnapshot> ServerLife::Status(Clock::time_point now) const {
  if (!m_status) {
    return std::nullopt;
  }
  const auto age = now - m_statusAt;
  return StatusSnapshot{*m_status, std::chrono::duration<double>(age).count(), IsAlive(m_state) && age > m_maxSilence};
}

}  // namespace price_client
