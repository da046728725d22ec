#include "transport/nats/intake.h"

#include <algorithm>
#include <utility>

namespace engine::transport::nats {

std::shared_ptr<Route> Intake::Listen(RouteKind kind, std::string subject, std::shared_ptr<NatsRemoteSource> source,
                                      std::uint32_t publication) {
  auto route = std::make_shared<Route>(Route{kind, std::move(subject), std::move(source), publication, nullptr});
  const std::lock_guard lock(m_mutex);
  m_routes[static_cast<std::size_t>(kind)].push_back(route);
  if (m_connection != nullptr) {
    route->handle = m_connection->Subscribe(route->subject);
  }
  return route;
}

void Intake::Ignore(const std::shared_ptr<Route>& route) {
  const std::lock_guard lock(m_mutex);
  std::erase(m_routes[static_cast<std::size_t>(route->kind)], route);
  route->handle = nullptr;  // with the lock: the library does not expect it while it reads
}

void Intake::SetConnection(std::shared_ptr<Connection> connection) {
  const std::lock_guard lock(m_mutex);
  for (auto& routes : m_routes) {
    for (const auto& route : routes) {
      route->handle = connection != nullptr ? connection->Subscribe(route->subject) : nullptr;
    }
  }
  m_connection.swap(connection);
}

bool Intake::Read() {
  const std::unique_lock lock(m_mutex, std::try_to_lock);
  if (!lock || m_connection == nullptr) {
    return false;
  }
  const std::size_t received = m_connection->Read();
  if (received != 0) {
    Collect(received);
  }
  return received != 0;
}

void Intake::Collect(std::size_t expected) {
  const bool wasEmpty = m_next == m_queue.size();
  for (auto& routes : m_routes) {
    for (auto route = routes.begin(); route != routes.end() && expected != 0; ++route) {
      if (CollectFrom(*route, expected)) {
        std::rotate(routes.begin(), route, route + 1);
      }
    }
  }
  if (wasEmpty && m_next < m_queue.size()) {
    m_arrived.Notify();
  }
}

// Whether there was something.
bool Intake::CollectFrom(const std::shared_ptr<Route>& route, std::size_t& expected) {
  bool any = false;
  while (expected != 0 && route->handle != nullptr) {
    Message message = Next(route->handle.get());
    if (message == nullptr) {
      break;
    }
    any = true;
    --expected;
    Arrival arrival{route, std::move(message)};
    if (m_filter(arrival, m_bytes)) {
      m_bytes += BytesOf(arrival.message).size();
      m_queue.push_back(std::move(arrival));
    }
  }
  return any;
}

std::optional<Arrival> Intake::Take() {
  const std::lock_guard lock(m_mutex);
  if (m_next == m_queue.size()) {
    return std::nullopt;
  }
  Arrival arrival = std::move(m_queue[m_next++]);
  m_bytes -= BytesOf(arrival.message).size();
  if (m_next == m_queue.size()) {
    m_queue.clear();
    m_next = 0;
  }
  return arrival;
}

bool Intake::Empty() {
  const std::lock_guard lock(m_mutex);
  return m_next == m_queue.size();
}

}  // namespace engine::transport::nats
