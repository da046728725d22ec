#include "open_requests.h"

#include <algorithm>
#include <utility>

#include "delivery.h"
#include "lbm/errors.h"

namespace lbm::details {
namespace {

constexpr auto kSendFailed = "Failed to send LBM request";

// The dispatching thread must never wait for room.
constexpr int kFlags = LBM_SRC_FLUSH | LBM_SRC_NONBLOCK;

// Answers to earlier sends than these are not taken any more.
constexpr std::size_t kMaxSends = 16;

constexpr std::chrono::milliseconds kShortestInterval(1);

using Clock = OpenRequest::Clock;

// The clock's last moment stands for never.
Clock::time_point FromNow(std::chrono::milliseconds time) {
  constexpr auto kNever = Clock::time_point::max();
  const auto now = Clock::now();
  return time < std::chrono::floor<std::chrono::milliseconds>(kNever - now) ? now + time : kNever;
}

Clock::time_point NextDue(const OpenRequest& request) {
  return request.isAnswered ? request.deadline : std::min(request.deadline, request.nextSend);
}

// Runs one of the application's functions without the lock.
template <class Function>
void Call(std::unique_lock<std::mutex>& lock, OpenRequest& request, const Function& function) {
  struct Inside {
    std::unique_lock<std::mutex>& lock;
    OpenRequest& request;
    const std::thread::id outer;

    ~Inside() {
      lock.lock();
      request.caller = outer;
    }
  } const inside{lock, request, std::exchange(request.caller, std::this_thread::get_id())};
  lock.unlock();
  function();
}

}  // namespace

OpenRequest::OpenRequest(std::shared_ptr<OpenRequests> inRequests, Source& inSource, std::string inData,
                         const RequestOptions& options, ResponseCallback inOnResponse, OutcomeCallback inOnOutcome)
    : requests(std::move(inRequests)),
      source(inSource),
      data(std::move(inData)),
      onResponse(std::move(inOnResponse)),
      onOutcome(std::move(inOnOutcome)),
      firstInterval(std::max(options.retryInterval, kShortestInterval)),
      deadline(FromNow(options.timeout)),
      interval(firstInterval) {}

std::shared_ptr<OpenRequest> OpenRequests::Open(Source& source, std::string data, const RequestOptions& options,
                                                ResponseCallback onResponse, OutcomeCallback onOutcome) {
  auto request = std::make_shared<OpenRequest>(shared_from_this(), source, std::move(data), options,
                                               std::move(onResponse), std::move(onOutcome));
  auto timer = std::make_unique<Timer>(m_ctx, HandleOf(m_eq), OnTimer, request.get());
  // It may be told of already: what was left of an earlier timer's event can be taken for one of this one.
  const Lock lock(m_mutex);
  m_requests.insert(request);
  request->handles.timer = std::move(timer);
  request->hadListener = m_listeners != 0;
  ScheduleRetry(*request);
  return request;
}

void OpenRequests::SendFirst(OpenRequest& request) {
  const int error = Send(Lock(m_mutex), request);
  if (error != 0 && error != LBM_EWOULDBLOCK) {
    ThrowLbmError(kSendFailed);
  }
}

bool OpenRequests::Cancel(OpenRequest& request) noexcept {
  OpenRequest::Handles handles;
  const Lock lock(m_mutex);
  const bool wasOpen = std::exchange(request.isOpen, false);
  if (request.caller != std::this_thread::get_id()) {
    handles = Release(request);
  } else if (wasOpen) {
    request.handles.timer->Set(Clock::now());
  }
  return wasOpen;
}

bool OpenRequests::IsOpen(const OpenRequest& request) const {
  const Lock lock(m_mutex);
  return request.isOpen;
}

std::size_t OpenRequests::Listeners() const {
  const Lock lock(m_mutex);
  return m_listeners;
}

void OpenRequests::CancelAll() noexcept {
  Lock lock(m_mutex);
  const auto requests = m_requests;
  lock.unlock();
  for (const auto& request : requests) {
    Cancel(*request);
  }
  // One that another thread has just cancelled may be in a send still.
  lock.lock();
  m_sent.wait(lock, [this] { return m_sending == 0; });
}

void OpenRequests::TakeEvent(int event) {
  std::vector<std::shared_ptr<OpenRequest>> due;
  Lock lock(m_mutex);
  const std::size_t listenersBefore = m_listeners;
  if (event == LBM_SRC_EVENT_CONNECT) {
    ++m_listeners;
  } else if (event == LBM_SRC_EVENT_DISCONNECT && m_listeners != 0) {
    --m_listeners;
  }
  const std::size_t listeners = m_listeners;
  for (const auto& request : m_requests) {
    request->hadListener |= listeners != 0;
    const bool isNews = listeners > listenersBefore || (event == LBM_SRC_EVENT_WAKEUP && request->isBlocked);
    if (isNews && request->isOpen && !request->isAnswered) {
      request->interval = request->firstInterval;
      ScheduleRetry(*request);
      due.push_back(request);
    }
  }
  lock.unlock();
  for (const auto& request : due) {
    Lock again(m_mutex);
    if (request->isOpen && !request->isAnswered) {
      SendAgain(std::move(again), *request);
    }
  }
  if (listeners != listenersBefore && m_onListeners) {
    m_onListeners(listeners);
  }
}

int OpenRequests::OnTimer(lbm_context_t*, int, lbm_ulong_t, void* clientd) {
  const auto request = static_cast<OpenRequest*>(clientd)->shared_from_this();
  TimeCallback(nullptr, [&] { request->requests->TimeHasCome(*request); });
  return 0;
}

void OpenRequests::TimeHasCome(OpenRequest& request) {
  OpenRequest::Handles handles;
  Lock lock(m_mutex);
  if (request.handles.timer == nullptr) {
    return;  // whoever has released it waits for this
  }
  if (!request.isOpen) {
    handles = Release(request);
  } else if (Clock::now() >= request.deadline) {
    End(lock, request, request.hadListener ? RequestOutcome::kTimedOut : RequestOutcome::kNobodyListened);
  } else if (!request.isAnswered && Clock::now() >= request.nextSend) {
    ScheduleRetry(request);
    SendAgain(std::move(lock), request);
  } else {
    request.handles.timer->Set(NextDue(request));
  }
}

void OpenRequests::TakeResponse(OpenRequest& request, Message message) {
  Lock lock(m_mutex);
  if (!request.isOpen) {
    return;
  }
  request.hadListener = true;
  request.isAnswered = true;
  auto answer = Answer::kComplete;
  if (request.onResponse) {
    Call(lock, request, [&] { answer = request.onResponse(std::move(message)); });
  }
  if (request.isOpen && answer == Answer::kComplete) {
    End(lock, request, RequestOutcome::kAnswered);
  }
}

int OpenRequests::Send(Lock lock, OpenRequest& request) {
  ++m_sending;
  lock.unlock();
  auto sent = request.source.SendRequestEC(
      request.data.data(), request.data.size(), kFlags,
      [weak = request.weak_from_this()](Message message) {
        if (const auto open = weak.lock()) {
          open->requests->TakeResponse(*open, std::move(message));
        }
      },
      m_eq);
  const int error = sent != nullptr ? 0 : lbm_errnum();
  lock.lock();
  --m_sending;
  m_sent.notify_all();
  request.isBlocked = error == LBM_EWOULDBLOCK;
  auto& sends = request.handles.sends;
  if (sent != nullptr && request.handles.timer != nullptr) {
    sends.push_back(std::move(sent));
    if (sends.size() > kMaxSends) {
      sent = std::move(sends.front());
      sends.erase(sends.begin());
    }
  }
  lock.unlock();  // before the one that is left, if any, is deleted
  return error;
}

void OpenRequests::SendAgain(Lock lock, OpenRequest& request) {
  const int error = Send(std::move(lock), request);
  if (error != 0 && error != LBM_EWOULDBLOCK) {
    LogLbmError(kSendFailed);
  }
}

void OpenRequests::ScheduleRetry(OpenRequest& request) {
  request.nextSend = FromNow(request.interval);
  if (request.interval < RequestOptions::kLongestRetryInterval) {
    request.interval = std::min(2 * request.interval, RequestOptions::kLongestRetryInterval);
  }
  request.handles.timer->Set(NextDue(request));
}

void OpenRequests::End(Lock& lock, OpenRequest& request, RequestOutcome outcome) {
  request.isOpen = false;
  request.handles.timer->Set(Clock::now());
  if (request.onOutcome) {
    Call(lock, request, [&] { request.onOutcome(outcome); });
  }
}

OpenRequest::Handles OpenRequests::Release(OpenRequest& request) {
  m_requests.erase(request.shared_from_this());
  return std::exchange(request.handles, {});
}

}  // namespace lbm::details
