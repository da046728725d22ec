// What the application's callbacks are made through.
#pragma once

#include <lbm/lbm.h>

#include <memory>
#include <string>
#include <utility>

#include "core/callback_gate.h"
#include "core/message_pool.h"

namespace engine::core {

class EventQueue;

// One callback to be made. Which members mean something is the target's affair.
struct Event {
  MessageRef message;
  int code = 0;
  std::string text;
};

// Something that turns events into the application's callbacks, at one place: the context's dispatching thread, or the
// thread that dispatches an event queue.
class Target : public Callee, public std::enable_shared_from_this<Target> {
 public:
  // contextGate: of the context, whose life the derived class has to ensure. queue: null for the context's own thread.
  Target(CallbackGate& contextGate, std::shared_ptr<EventQueue> queue) noexcept
      : m_contextGate(contextGate), m_queue(std::move(queue)) {}

  // Runs the event here, or posts it to the event queue. Threads: the context's dispatching one.
  void Dispatch(Event event);

  // After this no callback runs, but the one that it is called from. Threads: any.
  void CloseAndWait() noexcept;

  // Makes the callback. Called through a CallbackGate.
  virtual void Run(Event& event) = 0;

  const std::shared_ptr<EventQueue>& Queue() const noexcept { return m_queue; }

 protected:
  CallbackGate& ContextGate() const noexcept { return m_contextGate; }

 private:
  CallbackGate& m_contextGate;
  const std::shared_ptr<EventQueue> m_queue;
};

}  // namespace engine::core
