#include "core/tasks.h"

#include <utility>

namespace engine::core {

bool TaskQueue::Post(Task task) {
  {
    const std::lock_guard lock(m_mutex);
    if (m_closed) {
      return false;
    }
    m_tasks.push_back(std::move(task));
  }
  return !m_posted.exchange(true);
}

std::vector<Task> TaskQueue::Take() {
  if (!m_posted.load(std::memory_order_relaxed) || !m_posted.exchange(false)) {
    return {};
  }
  const std::lock_guard lock(m_mutex);
  return std::exchange(m_tasks, {});
}

void TaskQueue::Close() {
  std::vector<Task> dropped;  // destroyed without the lock
  const std::lock_guard lock(m_mutex);
  m_closed = true;
  dropped.swap(m_tasks);
}

void Timers::RunAfter(std::chrono::milliseconds delay, Task task) {
  m_timers.emplace(Clock::now() + delay, std::move(task));
}

std::size_t Timers::RunDue() {
  if (m_timers.empty()) {
    return 0;
  }
  std::size_t done = 0;
  for (const Clock::time_point now = Clock::now(); !m_timers.empty() && m_timers.begin()->first <= now; ++done) {
    const Task task = std::move(m_timers.extract(m_timers.begin()).mapped());
    task();
  }
  return done;
}

std::optional<Timers::Clock::time_point> Timers::NextDue() const {
  return m_timers.empty() ? std::nullopt : std::optional(m_timers.begin()->first);
}

}  // namespace engine::core
