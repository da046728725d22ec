// Requests that wait for their responses.
#pragma once

#include <lbm/lbm.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "core/target.h"
#include "transport/transport.h"

namespace engine::core {

class Context;

class Request : public Target {
 public:
  // What lbm_send_request was told.
  struct Callback {
    lbm_request_cb_proc proc = nullptr;
    lbm_request_t* handle = nullptr;
    void* clientd = nullptr;
  };

  // queue: null for the context's dispatching thread.
  Request(std::shared_ptr<Context> context, const std::string& topic, const Callback& callback,
          std::shared_ptr<EventQueue> queue);

  // Expects responses from now on. Threads: any.
  void Start();

  // After this no callback runs, but the one that it is called from. Threads: any.
  void Stop();

  // The event's message is a response.
  void Run(Event& event) override { m_callback.proc(m_callback.handle, event.message.Get(), m_callback.clientd); }

  // Unique among the context's requests, never 0.
  std::uint64_t Id() const noexcept { return m_id; }

  // Where a response is said to come from: the request's topic, and the responder as its source. Threads: the context's
  // dispatching one only.
  const std::shared_ptr<transport::RemoteSource>& Origin(const std::string& responder);

 private:
  const std::shared_ptr<Context> m_context;
  const Callback m_callback;
  const std::uint64_t m_id;
  const std::string m_topic;
  std::shared_ptr<transport::RemoteSource> m_origin;  // of the last response
};

// The open requests of a context. Threads: any.
class RequestTable {
 public:
  std::uint64_t NextId();
  void Add(const std::shared_ptr<Request>& request);
  void Remove(std::uint64_t id);
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

struct lbm_request_t_stct {
  std::shared_ptr<engine::core::Request> request;
};
