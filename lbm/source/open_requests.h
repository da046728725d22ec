// The requests of a RequestSource.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "lbm/context.h"
#include "lbm/event_queue.h"
#include "lbm/request_source.h"
#include "lbm/source.h"
#include "timer.h"

namespace lbm::details {

// One request. The application's functions are called from two places only: the callback of one of the sends, and that
// of the timer. Both are the messaging library's, which waits for a running callback when they are deleted. So whoever
// has taken the handles out of here and deleted them knows that no function of the application's runs.
struct OpenRequest : std::enable_shared_from_this<OpenRequest> {
  using Clock = Timer::Clock;

  struct Handles {
    std::unique_ptr<Timer> timer;
    std::vector<std::unique_ptr<Request>> sends;  // the latest, with the oldest in front
  };

  OpenRequest(std::shared_ptr<OpenRequests> inRequests, Source& inSource, std::string inData,
              const RequestOptions& options, ResponseCallback inOnResponse, OutcomeCallback inOnOutcome);

  const std::shared_ptr<OpenRequests> requests;
  Source& source;  // outlives the handles, and the sends
  const std::string data;
  const ResponseCallback onResponse;
  const OutcomeCallback onOutcome;
  const std::chrono::milliseconds firstInterval;

  // Guarded by the mutex of requests:
  bool isOpen = true;
  bool hadListener = false;  // at some time since it is open
  bool isAnswered = false;   // there was a response
  bool isBlocked = false;    // the last send found no room
  Clock::time_point deadline;
  Clock::time_point nextSend;
  std::chrono::milliseconds interval;
  std::thread::id caller;  // the thread that is inside one of the application's functions
  Handles handles;         // none once they are released
};

// The requests of one source. One that ends inside its own callback keeps its handles until its
// timer, set for at once, releases them: there none of its sends is inside a callback.
//
// Threads: that of the callbacks, and the owners'. The lock is held neither while functions of the application's run,
// nor while anything is deleted that waits for them.
class OpenRequests : public std::enable_shared_from_this<OpenRequests> {
 public:
  OpenRequests(Context& ctx, EventQueue* eq, RequestSource::ListenersCallback onListeners)
      : m_ctx(ctx), m_eq(eq), m_onListeners(std::move(onListeners)) {}

  // The request is known, and is sent to whoever begins to listen, from here on; to all others with SendFirst, which
  // throws LbmError. Cancel is to be called in the end.
  std::shared_ptr<OpenRequest> Open(Source& source, std::string data, const RequestOptions& options,
                                    ResponseCallback onResponse, OutcomeCallback onOutcome);
  void SendFirst(OpenRequest& request);

  // See PendingRequest.
  bool Cancel(OpenRequest& request) noexcept;
  bool IsOpen(const OpenRequest& request) const;

  std::size_t Listeners() const;

  // For the source's events, on the thread of the callbacks.
  void TakeEvent(int event);

  // When it has returned nothing is sent any more, but for what an event of the source brings about.
  void CancelAll() noexcept;

 private:
  using Lock = std::unique_lock<std::mutex>;

  // On the thread of the callbacks:
  static int OnTimer(lbm_context_t* ctx, int fd, lbm_ulong_t event, void* clientd);
  void TakeResponse(OpenRequest& request, Message message);
  void TimeHasCome(OpenRequest& request);

  // Release the lock. Send returns 0 or the library's error number.
  int Send(Lock lock, OpenRequest& request);
  void SendAgain(Lock lock, OpenRequest& request);

  // With the lock held:
  static void ScheduleRetry(OpenRequest& request);
  static void End(Lock& lock, OpenRequest& request, RequestOutcome outcome);
  OpenRequest::Handles Release(OpenRequest& request);  // they are to be deleted without the lock

  Context& m_ctx;
  EventQueue* const m_eq;
  const RequestSource::ListenersCallback m_onListeners;

  mutable std::mutex m_mutex;
  std::condition_variable m_sent;
  // Guarded by m_mutex:
  std::size_t m_listeners = 0;
  std::size_t m_sending = 0;                          // threads that are in a send
  std::set<std::shared_ptr<OpenRequest>> m_requests;  // those that have their handles
};

}  // namespace lbm::details
