#include "core/event_queue.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "system/error.h"

namespace engine::core {

void EventQueue::Post(std::shared_ptr<EventHandler> handler, Event event) {
  {
    const std::lock_guard lock(m_mutex);
    if (m_shutDown) {
      return;
    }
    const std::size_t bytes = sizeof(Entry) + event.text.size() + (event.message ? event.message->Footprint() : 0);
    m_posted.push_back({std::move(handler), std::move(event), bytes});
    m_bytes += bytes;
    m_full.store(m_full.load(std::memory_order_relaxed) || m_bytes >= m_settings.bytesMax, std::memory_order_relaxed);
  }
  m_changed.notify_one();
}

void EventQueue::Post(std::unique_ptr<Task> task) noexcept {
  {
    const std::lock_guard lock(m_mutex);
    if (m_shutDown) {
      return;
    }
    m_tasks.Append(std::move(task));
  }
  m_changed.notify_one();
}

int EventQueue::Dispatch(lbm_ulong_t msec) {
  using Clock = std::chrono::steady_clock;
  const bool forEver = msec >= LBM_EVENT_QUEUE_BLOCK;
  const Clock::time_point deadline =
      forEver ? Clock::time_point::max() : Clock::now() + std::chrono::milliseconds(msec);
  int dispatched = 0;

  std::unique_lock lock(m_mutex);
  if (std::exchange(m_dispatching, true)) {
    throw Error(LBM_EOP, "another thread is dispatching this event queue");
  }
  const CallbackGate::Scope scope(m_gate);
  // A poll runs what is there now: what callbacks and other threads post meanwhile is for the next one.
  const std::size_t polled = m_taken.size() - m_done + m_posted.size() + m_tasks.Size();
  const auto wakeUp = [this] { return m_unblocked || m_shutDown || !m_posted.empty() || !m_tasks.Empty(); };
  bool eventsTurn = false;  // so that neither tasks nor events hold up the others
  while (!m_unblocked && !m_shutDown) {
    if (msec == LBM_EVENT_QUEUE_POLL && static_cast<std::size_t>(dispatched) == polled) {
      break;
    }
    if (NothingLeft()) {
      EmptyTaken();
      m_taken.swap(m_posted);
    }
    std::unique_ptr<Task> task;
    if (!eventsTurn || NothingLeft()) {
      task = m_tasks.Take();
      if (task == nullptr && NothingLeft()) {
        if (forEver) {
          m_changed.wait(lock, wakeUp);
        } else if (!m_changed.wait_until(lock, deadline, wakeUp)) {
          break;
        }
        continue;
      }
    }
    eventsTurn = task != nullptr;
    lock.unlock();
    std::size_t bytes = 0;
    if (task != nullptr) {
      RunTask(std::move(task));
    } else {
      bytes = RunEvent();
    }
    ++dispatched;
    const bool late = !forEver && msec != LBM_EVENT_QUEUE_POLL && Clock::now() >= deadline;
    lock.lock();
    NoteRun(bytes, lock);
    if (late) {
      break;
    }
  }
  m_unblocked = false;
  m_dispatching = false;
  return dispatched;
}

void EventQueue::RunTask(std::unique_ptr<Task> task) { task->Run(task); }

// Returns the event's bytes.
std::size_t EventQueue::RunEvent() {
  Entry entry = std::move(m_taken[m_done++]);
  m_gate.Call(*entry.handler, [&entry] { entry.handler->RunQueued(entry.event); });
  return entry.bytes;
}

void EventQueue::NoteRun(std::size_t bytes, std::unique_lock<std::mutex>& lock) {
  m_bytes -= std::min(bytes, m_bytes);  // Shutdown may have come between
  if (!Full() || m_bytes > m_settings.bytesMax / 2) {
    return;
  }
  m_full.store(false, std::memory_order_relaxed);
  const RoomWaiters waiters = std::exchange(m_roomWaiters, {});
  lock.unlock();
  for (const auto& weak : waiters) {
    if (const auto waiter = weak.lock()) {
      waiter->OnRoom();
    }
  }
  lock.lock();
}

bool EventQueue::AwaitRoom(const std::weak_ptr<RoomWaiter>& waiter) {
  const std::lock_guard lock(m_mutex);
  if (!Full()) {
    return false;
  }
  const auto isWaiter = [&](const auto& one) { return !one.owner_before(waiter) && !waiter.owner_before(one); };
  if (std::none_of(m_roomWaiters.begin(), m_roomWaiters.end(), isWaiter)) {
    m_roomWaiters.push_back(waiter);
  }
  return true;
}

// What a backlog took is given back.
void EventQueue::EmptyTaken() noexcept {
  constexpr std::size_t kKept = 4096;
  m_taken.clear();
  m_done = 0;
  if (m_taken.capacity() > kKept) {
    std::vector<Entry>().swap(m_taken);
  }
}

void EventQueue::Unblock() {
  {
    const std::lock_guard lock(m_mutex);
    m_unblocked = true;
  }
  m_changed.notify_all();
}

void EventQueue::Shutdown() {
  std::vector<Entry> dropped;
  TaskList droppedTasks;
  {
    std::unique_lock lock(m_mutex);
    m_shutDown = true;
    dropped.swap(m_posted);
    droppedTasks.Append(std::move(m_tasks));
    if (!m_dispatching) {
      EmptyTaken();
    }
    NoteRun(m_bytes, lock);
  }
  m_changed.notify_all();
}

}  // namespace engine::core
