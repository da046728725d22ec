// Queues that carry callbacks from a context's thread to a thread of the application's choosing.
#pragma once

#include <lbm/lbm.h>

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/callback_gate.h"
#include "core/message_pool.h"
#include "core/tasks.h"

namespace engine::core {

// One callback to be made. Which members mean something is the handler's affair.
struct Event {
  MessageRef message;
  int code = 0;
  std::string text;
};

// Something that turns events into the application's callbacks.
class EventHandler : public Callee {
 public:
  // Makes the callback. Called through a CallbackGate.
  virtual void Run(Event& event) = 0;
};

class EventQueue {
 public:
  explicit EventQueue(bool cancellationCallbacks) noexcept : m_cancellationCallbacks(cancellationCallbacks) {}

  // Appends an event; dropped after Shutdown. Threads: any.
  void Post(std::shared_ptr<EventHandler> handler, Event event);

  // The same for a task, which makes its callback through the gate. It may overtake events. Threads: any.
  void Post(std::unique_ptr<Task> task) noexcept;

  // Runs events until msec milliseconds have passed (LBM_EVENT_QUEUE_BLOCK: for ever; 0: those that are there now), or
  // Unblock. Returns how many ran. Throws Error when another thread is dispatching.
  int Dispatch(lbm_ulong_t msec);

  // Ends the dispatch in progress after its present event; when there is none, the next one at once. Threads: any.
  void Unblock();

  // Drops what is queued and takes nothing more. Threads: any.
  void Shutdown();

  CallbackGate& Gate() noexcept { return m_gate; }
  bool CancellationCallbacks() const noexcept { return m_cancellationCallbacks; }

 private:
  struct Entry {
    std::shared_ptr<EventHandler> handler;
    Event event;
  };

  bool NothingLeft() const noexcept { return m_done == m_taken.size(); }
  void RunEvent();
  static void RunTask(std::unique_ptr<Task> task);

  const bool m_cancellationCallbacks;
  CallbackGate m_gate;

  // The dispatching thread's own: the events taken over from m_posted, of which the first m_done have run.
  std::vector<Entry> m_taken;
  std::size_t m_done = 0;

  std::mutex m_mutex;
  std::condition_variable m_changed;
  // Guarded by m_mutex:
  std::vector<Entry> m_posted;
  TaskList m_tasks;
  bool m_dispatching = false;
  bool m_unblocked = false;
  bool m_shutDown = false;
};

}  // namespace engine::core
