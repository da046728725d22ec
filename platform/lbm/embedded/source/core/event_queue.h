// Queues that carry callbacks from a context's thread to a thread of the application's choosing.
#pragma once

#include <lbm/lbm.h>

#include <atomic>
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
  // The same for the thread that dispatches the queue.
  virtual void RunQueued(Event& event) { Run(event); }
};

// Somebody who has to know when a queue that was full has room. Threads: any.
class RoomWaiter {
 public:
  virtual ~RoomWaiter() = default;
  virtual void OnRoom() noexcept = 0;
};

// It is full when its events take up so many bytes, and has room again when half of them are left. Being full does not
// keep it from taking events: whoever can do without or wait asks first.
class EventQueue {
 public:
  struct Settings {
    bool cancellationCallbacks = false;
    std::size_t bytesMax = 0;
  };
  explicit EventQueue(const Settings& settings) noexcept : m_settings(settings) {}

  bool Full() const noexcept { return m_full.load(std::memory_order_relaxed); }
  // False when it has room; otherwise the waiter is told, once, as soon as it has. Threads: any.
  bool AwaitRoom(const std::weak_ptr<RoomWaiter>& waiter);

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
  bool CancellationCallbacks() const noexcept { return m_settings.cancellationCallbacks; }

 private:
  struct Entry {
    std::shared_ptr<EventHandler> handler;
    Event event;
    std::size_t bytes = 0;
  };
  using RoomWaiters = std::vector<std::weak_ptr<RoomWaiter>>;

  bool NothingLeft() const noexcept { return m_done == m_taken.size(); }
  std::size_t RunEvent();
  void NoteRun(std::size_t bytes, std::unique_lock<std::mutex>& lock);
  void EmptyTaken() noexcept;
  static void RunTask(std::unique_ptr<Task> task);

  const Settings m_settings;
  CallbackGate m_gate;

  // The dispatching thread's own: the events taken over from m_posted, of which the first m_done have run.
  std::vector<Entry> m_taken;
  std::size_t m_done = 0;

  std::mutex m_mutex;
  std::condition_variable m_changed;
  // Guarded by m_mutex:
  std::vector<Entry> m_posted;
  TaskList m_tasks;
  std::size_t m_bytes = 0;  // of all events that have not run
  RoomWaiters m_roomWaiters;
  std::atomic<bool> m_full{false};  // read without it
  bool m_dispatching = false;
  bool m_unblocked = false;
  bool m_shutDown = false;
};

}  // namespace engine::core
