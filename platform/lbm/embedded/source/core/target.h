// What the application's callbacks are made through.
#pragma once

#include <lbm/lbm.h>

#include <memory>
#include <utility>

#include "core/callback_gate.h"
#include "core/event_queue.h"
#include "core/membership.h"

namespace engine::core {

// A function of the application's and what it is called with: the handle of the object that it belongs to first, the
// application's own data last.
template <class Proc, class Handle>
struct ApplicationCallback {
  Proc proc = nullptr;
  Handle* handle = nullptr;
  void* clientd = nullptr;

  explicit operator bool() const noexcept { return proc != nullptr; }

  template <class... Arguments>
  void operator()(Arguments... arguments) const {
    proc(handle, arguments..., clientd);
  }
};

// Something that makes the application's callbacks at one place: the context's dispatching thread, or the thread that
// dispatches an event queue.
class Target : public EventHandler, public std::enable_shared_from_this<Target> {
 public:
  // queue: null for the context's own thread.
  Target(std::shared_ptr<Membership> membership, std::shared_ptr<EventQueue> queue) noexcept
      : m_membership(std::move(membership)), m_gate(m_membership->Gate()), m_queue(std::move(queue)) {}

  // Runs the event here, or posts it to the event queue. Threads: the context's dispatching one.
  void Dispatch(Event event) {
    if (m_queue != nullptr) {
      m_queue->Post(shared_from_this(), std::move(event));
    } else {
      m_gate.Call(*this, [&] { Run(event); });
    }
  }

  // After this no callback runs, except the one that it is called from. Threads: any.
  void CloseAndWait() noexcept { (m_queue != nullptr ? m_queue->Gate() : m_gate).CloseAndWait(*this); }

  const std::shared_ptr<EventQueue>& Queue() const noexcept { return m_queue; }

 protected:
  // Inside a call through the queue's gate.
  template <class Callback>
  void CallFromQueue(Callback&& callback) {
    const CallbackGate::Elsewhere elsewhere(m_gate);
    if (!m_gate.Shut()) {
      callback();
    }
  }

  Membership& GetMembership() const noexcept { return *m_membership; }
  CallbackGate& ContextGate() const noexcept { return m_gate; }

 private:
  void RunQueued(Event& event) override {
    CallFromQueue([&] { Run(event); });
  }

  const std::shared_ptr<Membership> m_membership;
  CallbackGate& m_gate;  // the membership's
  const std::shared_ptr<EventQueue> m_queue;
};

}  // namespace engine::core
