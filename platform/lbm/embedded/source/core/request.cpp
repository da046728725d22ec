#include "core/request.h"

#include <utility>

#include "core/context.h"

namespace engine::core {

Request::Request(std::shared_ptr<Context> context, const std::string& topic, const Callback& callback,
                 std::shared_ptr<EventQueue> queue)
    : Target(context->Gate(), std::move(queue)),
      m_context(std::move(context)),
      m_callback(callback),
      m_id(m_context->Requests().NextId()),
      m_topic(topic) {}

void Request::Start() { m_context->Requests().Add(std::static_pointer_cast<Request>(shared_from_this())); }

void Request::Stop() {
  m_context->Requests().Remove(m_id);
  CloseAndWait();
}

const std::shared_ptr<transport::RemoteSource>& Request::Origin(const std::string& responder) {
  if (m_origin == nullptr || m_origin->Session() != responder) {
    m_origin = std::make_shared<transport::RemoteSource>(m_topic, responder);
  }
  return m_origin;
}

std::uint64_t RequestTable::NextId() {
  const std::lock_guard lock(m_mutex);
  return ++m_lastId;
}

void RequestTable::Add(const std::shared_ptr<Request>& request) {
  const std::lock_guard lock(m_mutex);
  m_requests.emplace(request->Id(), request);
}

void RequestTable::Remove(std::uint64_t id) {
  const std::lock_guard lock(m_mutex);
  m_requests.erase(id);
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
