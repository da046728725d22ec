#include "lbm/event_queue.h"

#include <type_traits>

#include "lbm/errors.h"
#include "loop.h"
#include "statistics.h"

namespace lbm {

static_assert(!std::is_copy_constructible_v<EventQueue> && !std::is_move_constructible_v<EventQueue>);

EventQueue::EventQueue(const EventQueueAttributes& attrs) {
  EventQueueAttributes own(attrs);
  own.Set<int>("queue_cancellation_callbacks_enabled", 1);
  details::ThrowIfFailed(lbm_event_queue_create(&m_eq, nullptr, nullptr, own), "Failed to create LBM event queue");
  m_row.emplace(details::EventQueueKind(), std::initializer_list<std::string_view>{details::Address(m_eq)});
}

EventQueue::~EventQueue() {
  if (m_eq != nullptr) {
    lbm_event_queue_shutdown(m_eq);
    lbm_event_queue_delete(m_eq);
  }
}

int EventQueue::Run() {
  return details::ThrowIfFailed(Dispatch(LBM_EVENT_QUEUE_BLOCK), "Failed to run LBM event queue");
}

int EventQueue::Poll() {
  return details::ThrowIfFailed(Dispatch(LBM_EVENT_QUEUE_POLL), "Failed to poll LBM event queue");
}

int EventQueue::Dispatch(lbm_ulong_t timeoutMs) {
  const details::Loop loop(*m_row);
  return lbm_event_dispatch(m_eq, timeoutMs);
}

void EventQueue::Unblock() {
  if (m_eq != nullptr) {
    lbm_event_dispatch_unblock(m_eq);
  }
}

}  // namespace lbm
