#include "dispatch_thread.h"

#include <chrono>
#include <stdexcept>

namespace price_client {

void DispatchThread::Run(const std::function<void()>& task) {
  if (m_hasEnded) {
    return task();
  }
  std::future<void> result;
  {
    const std::lock_guard lock(m_mutex);
    m_task = std::packaged_task<void()>(task);
    result = m_task.get_future();
    m_isWanted = true;
  }
  m_wake();
  constexpr auto kTick = std::chrono::milliseconds(50);
  for (int ticks = 0; result.wait_for(kTick) != std::future_status::ready; ++ticks) {
    if (ticks == m_patience) {
      const std::lock_guard lock(m_mutex);  // a task that has begun ends first, as it may use what is the caller's
      if (!m_isWanted.exchange(false)) {
        break;
      }
      throw std::runtime_error("the dispatch thread has ended or hangs; run with --log-level info for its last words");
    }
  }
  result.get();
}

void DispatchThread::Serve() {
  // Looked at without the lock first, as there is nothing to do most of the time.
  if (!m_isWanted.load(std::memory_order_relaxed)) {
    return;
  }
  const std::lock_guard lock(m_mutex);
  if (m_isWanted.exchange(false)) {
    m_task();
  }
}

}  // namespace price_client
