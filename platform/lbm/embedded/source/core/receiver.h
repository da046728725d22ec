// A subscription of the application.
#pragma once

#include <lbm/lbm.h>

#include <cstdint>
#include <memory>

#include "core/target.h"
#include "core/topic.h"

namespace engine::core {

class Receiver : public Target {
 public:
  // What lbm_rcv_create was told.
  struct Callback {
    lbm_rcv_cb_proc proc = nullptr;
    lbm_rcv_t* handle = nullptr;
    void* clientd = nullptr;
  };

  // queue: null for the context's dispatching thread.
  Receiver(std::shared_ptr<Context> context, const Topic& topic, const Callback& callback,
           std::shared_ptr<EventQueue> queue);

  // Begins to receive. Threads: any.
  void Start();

  // After this no callback runs, but the one that it is called from. Threads: any.
  void Stop();

  // As dispatch(), for messages: costs no reference count when the callback is made here.
  void Deliver(const MessageRef& message) {
    if (Queue() != nullptr) {
      Dispatch({.message = message});
    } else {
      ContextGate().Call(*this, [&] { Call(*message); });
    }
  }

  void Run(Event& event) override { Call(*event.message); }

  const Topic& GetTopic() const noexcept { return m_topic; }
  std::uint32_t LossBurstThreshold() const noexcept { return m_lossBurstThreshold; }

 private:
  void Call(Message& message) { m_callback.proc(m_callback.handle, &message, m_callback.clientd); }

  std::shared_ptr<Receiver> Self();

  const std::shared_ptr<Context> m_context;
  const Topic& m_topic;
  const Callback m_callback;
  const std::uint32_t m_lossBurstThreshold;
};

}  // namespace engine::core

struct lbm_rcv_t_stct {
  std::shared_ptr<engine::core::Receiver> receiver;
};
