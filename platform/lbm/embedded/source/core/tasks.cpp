#include "core/tasks.h"

#include <new>

namespace engine::core {

void TaskList::Append(std::unique_ptr<Task> task) noexcept {
  Task* const last = task.get();
  (m_last != nullptr ? m_last->m_next : m_first) = std::move(task);
  m_last = last;
  ++m_size;
}

void TaskList::Append(TaskList&& other) noexcept {
  if (!other.Empty()) {
    (m_last != nullptr ? m_last->m_next : m_first) = std::move(other.m_first);
    m_last = std::exchange(other.m_last, nullptr);
    m_size += std::exchange(other.m_size, 0);
  }
}

std::unique_ptr<Task> TaskList::Take() noexcept {
  std::unique_ptr<Task> task = std::move(m_first);
  if (task != nullptr) {
    m_first = std::move(task->m_next);
    m_last = m_first != nullptr ? m_last : nullptr;
    --m_size;
  }
  return task;
}

void TaskList::PutBack(std::unique_ptr<Task> task) noexcept {
  m_last = m_last != nullptr ? m_last : task.get();
  task->m_next = std::move(m_first);
  m_first = std::move(task);
  ++m_size;
}

// One by one: each owns the next, and a long list must not take a deep stack.
void TaskList::Clear() noexcept {
  while (!Empty()) {
    Take();
  }
}

bool TaskQueue::Post(std::unique_ptr<Task> task) noexcept {
  {
    const std::lock_guard lock(m_mutex);
    if (!m_closed) {
      m_tasks.Append(std::move(task));
    }
  }
  // What was not taken is destroyed without the lock.
  return task == nullptr && !m_posted.exchange(true);
}

TaskList TaskQueue::Take() noexcept {
  if (!Posted() || !m_posted.exchange(false)) {
    return {};
  }
  const std::lock_guard lock(m_mutex);
  return std::move(m_tasks);
}

void TaskQueue::Close() noexcept {
  TaskList dropped;  // destroyed without the lock
  const std::lock_guard lock(m_mutex);
  m_closed = true;
  dropped.Append(std::move(m_tasks));
}

void Timers::RunAfter(std::chrono::milliseconds delay, Function function) {
  m_timers.emplace(Clock::now() + delay, std::move(function));
}

std::size_t Timers::RunDue() {
  if (m_timers.empty()) {
    return 0;
  }
  std::size_t done = 0;
  for (const Clock::time_point now = Clock::now(); !m_timers.empty() && m_timers.begin()->first <= now; ++done) {
    auto timer = m_timers.extract(m_timers.begin());
    try {
      timer.mapped()();
    } catch (const std::bad_alloc&) {
      timer.key() = now + kRetryDelay;
      m_timers.insert(std::move(timer));
    }
  }
  return done;
}

std::optional<Timers::Clock::time_point> Timers::NextDue() const {
  return m_timers.empty() ? std::nullopt : std::optional(m_timers.begin()->first);
}

}  // namespace engine::core
