// Requests that wait for their responses.
#pragma once

#include <lbm/lbm.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>

#include "core/target.h"
#include "transport/transport.h"

namespace engine::core {

class Request : public Target {
 public:
  using Callback = ApplicationCallback<lbm_request_cb_proc, lbm_request_t>;

  // id: unique among the context's requests, never 0. topic: on which it is sent.
  Request(std::shared_ptr<Membership> membership, std::uint64_t id, std::string topic, const Callback& callback,
          std::shared_ptr<EventQueue> queue)
      : Target(std::move(membership), std::move(queue)), m_id(id), m_topic(std::move(topic)), m_callback(callback) {}

  // The event's message is a response.
  void Run(Event& event) override { m_callback(event.message.Get()); }

  std::uint64_t Id() const noexcept { return m_id; }

  // Whether the application has deleted its handle, which it may do in a callback before the call that sends the
  // request has returned. Final once the request is closed.
  void NoteHandleDeleted() noexcept { m_handleDeleted = true; }
  bool HandleDeleted() const noexcept { return m_handleDeleted; }

  // Where a response is said to come from: the request's topic, and the responder as its source. Threads: the context's
  // dispatching one only.
  const std::shared_ptr<transport::RemoteSource>& Origin(const std::string& responder);

 private:
  const std::uint64_t m_id;
  const std::string m_topic;
  const Callback m_callback;
  std::atomic<bool> m_handleDeleted{false};
  std::shared_ptr<transport::RemoteSource> m_origin;  // of the last response
};

// The open requests of a context. Threads: any.
class RequestTable {
 public:
  // Makes a request that takes responses from now on; it is in the last argument before the first of them.
  std::shared_ptr<Request> Open(std::shared_ptr<Membership> membership, const std::string& topic,
                                const Request::Callback& callback, std::shared_ptr<EventQueue> queue,
                                std::shared_ptr<Request>& opened);

  // After this no callback of it runs, except the one that this is called from.
  void Close(Request& request);

  // Null when it is no longer open.
  std::shared_ptr<Request> Find(std::uint64_t id);

  // Closes them all, and returns when no callback of them runs.
  void Clear();

 private:
  std::mutex m_mutex;
  // Guarded by m_mutex:
  std::uint64_t m_lastId = 0;
  std::unordered_map<std::uint64_t, std::shared_ptr<Request>> m_requests;
};

}  // namespace engine::core
