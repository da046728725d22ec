#include "event_loop.h"

#include <poll.h>

#include <algorithm>
#include <utility>

#include "lbm/errors.h"

namespace price_server {
namespace {

bool CanBeReadNow(int descriptor) {
  pollfd file{descriptor, POLLIN, 0};
  return ::poll(&file, 1, 0) == 1;
}

}  // namespace

EventLoop::~EventLoop() {
  for (const auto& [descriptor, input] : m_inputs) {
    if (input.isWatched) {
      lbm_cancel_fd(m_ctx, descriptor, LBM_FD_EVENT_READ);
    }
  }
}

void EventLoop::RunEvery(Clock::duration period, Task task) {
  period = std::max(period, kShortestPeriod);
  RunPeriodically(Clock::now() + period, period, std::move(task));
}

void EventLoop::RunPeriodically(Clock::time_point due, Clock::duration period, Task task) {
  RunAt(due, [this, due, period, task = std::move(task)] {
    task();
    const auto missed = std::max(Clock::now() - due, Clock::duration::zero()) / period;
    RunPeriodically(due + (missed + 1) * period, period, task);
  });
}

void EventLoop::WatchForInput(int descriptor, std::function<bool()> task) {
  auto& input = m_inputs[descriptor] = {std::move(task)};
  input.isWatched = lbm_register_fd(m_ctx, descriptor, OnReadable, this, nullptr, LBM_FD_EVENT_READ) != -1;
  if (input.isWatched) {
    return;
  }
  // The system does not watch what never keeps a reader waiting.
  if (!CanBeReadNow(descriptor)) {
    m_inputs.erase(descriptor);
    throw lbm::LbmError("Failed to watch a descriptor for input");
  }
  PostInput(descriptor);
}

int EventLoop::OnReadable(lbm_context_t*, int descriptor, lbm_ulong_t, void* loop) {
  static_cast<EventLoop*>(loop)->PostInput(descriptor);
  return 0;
}

void EventLoop::PostInput(int descriptor) {
  if (!std::exchange(m_inputs[descriptor].isPosted, true)) {
    Post([this, descriptor] { TakeIn(descriptor); });
  }
}

void EventLoop::TakeIn(int descriptor) {
  auto& input = m_inputs[descriptor];
  input.isPosted = false;
  if (!input.task()) {
    if (input.isWatched) {
      lbm_cancel_fd(m_ctx, descriptor, LBM_FD_EVENT_READ);
    }
    m_inputs.erase(descriptor);
  } else if (!input.isWatched) {
    PostInput(descriptor);
  }
}

void EventLoop::Run() {
  while (!m_isStopped) {
    m_ctx.Poll(MillisecondsToNextTask());
    RunPosted();
    RunDue();
  }
}

void EventLoop::Stop() {
  m_isStopped = true;
  m_ctx.Unblock();
}

lbm_ulong_t EventLoop::MillisecondsToNextTask() const {
  if (!m_posted.empty()) {
    return 0;
  }
  constexpr Clock::duration kLongest = std::chrono::hours(1);
  const auto left = m_timed.empty() ? kLongest : std::min(m_timed.begin()->first - Clock::now(), kLongest);
  return static_cast<lbm_ulong_t>(
      std::chrono::ceil<std::chrono::milliseconds>(std::max(left, Clock::duration::zero())).count());
}

void EventLoop::RunPosted() {
  // What they post runs after the next look at the context.
  for (const auto& task : std::exchange(m_posted, {})) {
    task();
  }
}

void EventLoop::RunDue() {
  for (const auto now = Clock::now(); !m_timed.empty() && m_timed.begin()->first <= now;) {
    m_timed.extract(m_timed.begin()).mapped()();
  }
}

}  // namespace price_server
