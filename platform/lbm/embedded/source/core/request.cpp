#include "core/request.h"

namespace engine::core {

const std::shared_ptr<transport::RemoteSource>& Request::Origin(const std::string& responder) {
  if (m_origin == nullptr || m_origin->Session() != responder) {
    m_origin = std::make_shared<transport::RemoteSource>(m_topic, responder);
  }
  return m_origin;
}

std::shared_ptr<Request> RequestTable::Open(std::shared_ptr<Membership> membership, const std::string& topic,
                                            const Request::Callback& callback, std::shared_ptr<EventQueue> queue,
                                            std::shared_ptr<Request>& opened) {
  const std::lock_guard lock(m_mutex);
  auto request = std::make_shared<Request>(std::move(membership), ++m_lastId, topic, callback, std::move(queue));
  opened = request;
  m_requests.emplace(request->Id(), request);
  return request;
}

void RequestTable::Close(Request& request) {
  {
    const std::lock_guard lock(m_mutex);
    m_requests.erase(request.Id());
  }
  request.CloseAndWait();
}

std::shared_ptr<Request> RequestTable::Find(std::uint64_t id) {
  const std::lock_guard lock(m_mutex);
  const auto found = m_requests.find(id);
  return found != m_requests.end() ? found->second : nullptr;
}

void RequestTable::Clear() {
  std::unordered_map<std::uint64_t, std::shared_ptr<Request>> ended;
  {
    const std::lock_guard lock(m_mutex);
    ended.swap(m_requests);
  }
  for (const auto& [id, request] : ended) {
    request->CloseAndWait();
  }
}

}  // namespace engine::core
