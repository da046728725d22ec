#include "task_loop.h"

#include <algorithm>
#include <utility>

namespace price_server {

void TaskLoop::Start(std::function<void()> onFailure) {
  m_onFailure = std::move(onFailure);
  m_thread = std::thread([this] { Run(); });
}

void TaskLoop::Stop() {
  {
    const std::lock_guard lock(m_mutex);
    m_isStopping = true;
  }
  m_changed.notify_one();
  if (m_thread.joinable()) {
    m_thread.join();
  }
  // Outside the lock: the end of a task may be the end of a message.
  std::exchange(m_posted, {}).clear();
  std::exchange(m_timed, {}).clear();
}

bool TaskLoop::Post(Task task) {
  {
    const std::lock_guard lock(m_mutex);
    if (m_isStopping || m_posted.size() >= kMaxPosted) {
      return false;
    }
    m_posted.push_back(std::move(task));
  }
  m_changed.notify_one();
  return true;
}

void TaskLoop::RunAt(Clock::time_point time, Task task) {
  {
    const std::lock_guard lock(m_mutex);
    if (m_isStopping) {
      return;
    }
    m_timed.emplace(time, std::move(task));
  }
  m_changed.notify_one();
}

void TaskLoop::RunEvery(Clock::duration period, Task task) {
  period = std::max(period, kShortestPeriod);
  RunPeriodically(Clock::now() + period, period, std::move(task));
}

void TaskLoop::RunPeriodically(Clock::time_point due, Clock::duration period, Task task) {
  RunAt(due, [this, due, period, task = std::move(task)] {
    task();
    const auto missed = std::max(Clock::now() - due, Clock::duration::zero()) / period;
    RunPeriodically(due + (missed + 1) * period, period, task);
  });
}

void TaskLoop::RethrowFailure() const {
  if (m_failure) {
    std::rethrow_exception(m_failure);
  }
}

void TaskLoop::Run() {
  try {
    while (const auto task = Next()) {
      task();
    }
  } catch (...) {
    m_failure = std::current_exception();
    m_hasFailed = true;
    m_onFailure();
  }
}

// The task to run now, once there is one; none at the end.
TaskLoop::Task TaskLoop::Next() {
  std::unique_lock lock(m_mutex);
  for (;;) {
    if (!m_timed.empty() && m_timed.begin()->first <= Clock::now() && !m_isStopping) {
      return std::move(m_timed.extract(m_timed.begin()).mapped());
    }
    if (!m_posted.empty()) {
      auto task = std::move(m_posted.front());
      m_posted.pop_front();
      return task;
    }
    if (m_isStopping) {
      return {};
    }
    if (m_timed.empty()) {
      m_changed.wait(lock);
    } else {
      m_changed.wait_until(lock, m_timed.begin()->first);
    }
  }
}

}  // namespace price_server
