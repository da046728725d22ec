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
    m_posted.push_back({std::move(handler), std::move(event)});
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
      m_taken.clear();
      m_done = 0;
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
    task != nullptr ? RunTask(std::move(task)) : RunEvent();
    ++dispatched;
    const bool late = !forEver && msec != LBM_EVENT_QUEUE_POLL && Clock::now() >= deadline;
    lock.lock();
    if (late) {
      break;
    }
  }
  m_unblocked = false;
  m_dispatching = false;
  return dispatched;
}

void EventQueue::RunTask(std::unique_ptr<Task> task) { task->Run(task); }

void EventQueue::RunEvent() {
  Entry entry = std::move(m_taken[m_done++]);
  m_gate.Call(*entry.handler, [&entry] { entry.handler->Run(entry.event); });
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
    const std::lock_guard lock(m_mutex);
    m_shutDown = true;
    dropped.swap(m_posted);
    droppedTasks.Append(std::move(m_tasks));
    if (!m_dispatching) {
      m_taken.clear();
      m_done = 0;
    }
  }
  m_changed.notify_all();
}

}  // namespace engine::core
