// A queue of callbacks for a thread of the application's own.
#pragma once

#include <lbm/lbm.h>

#include <optional>

#include "lbm/attributes.h"
#include "zq/statistics/row.h"

#pragma GCC visibility push(default)

namespace lbm {

// Owns one event queue. Receivers, sources and requests made with it have their callbacks run by the thread that is
// inside Run or Poll. Queues are always made with cancellation callbacks enabled, whatever the attributes say.
//
// Threads: Run and Poll on one thread at a time, Unblock on any. That thread must have left them before the queue is
// destroyed.
class EventQueue {
 public:
  // Throws LbmError.
  explicit EventQueue(const EventQueueAttributes& attrs);
  virtual ~EventQueue();

  EventQueue(const EventQueue&) = delete;
  EventQueue& operator=(const EventQueue&) = delete;

  // Runs callbacks until Unblock is called. Like Poll, returns the library's count and throws LbmError.
  int Run();

  // Runs the callbacks that are waiting.
  int Poll();

  // Makes Run return; the next call of it when none is in progress.
  void Unblock();

  operator lbm_event_queue_t*() noexcept { return m_eq; }
  operator const lbm_event_queue_t*() const noexcept { return m_eq; }

 private:
  int Dispatch(lbm_ulong_t timeoutMs);

  lbm_event_queue_t* m_eq = nullptr;
  std::optional<zq::statistics::Row> m_row;
};

namespace details {

// The handle of an optional queue.
inline lbm_event_queue_t* HandleOf(EventQueue* eq) noexcept {
  return eq != nullptr ? static_cast<lbm_event_queue_t*>(*eq) : nullptr;
}

}  // namespace details
}  // namespace lbm

#pragma GCC visibility pop
