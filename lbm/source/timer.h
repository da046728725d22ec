// A timer of a context.
#pragma once

#include <lbm/lbm.h>

#include <chrono>

#include "zq/posix/descriptor.h"

namespace lbm::details {

// Calls proc where the context's callbacks run, or those of the event queue. It is a descriptor that is registered with
// the context: the messaging interface has no timers. The context has to outlive it.
//
// Threads: Set on any. When the destructor has returned proc does not run, unless it is called from there; the client
// data have to live until then.
class Timer {
 public:
  using Clock = std::chrono::steady_clock;

  // Throws LbmError and std::system_error.
  Timer(lbm_context_t* ctx, lbm_event_queue_t* evq, lbm_fd_cb_proc proc, void* clientd);
  ~Timer();

  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  // From due on, proc is called again and again until another time is set. Clock::time_point::max() is never.
  void Set(Clock::time_point due) noexcept;

 private:
  lbm_context_t* const m_ctx;
  const zq::posix::Descriptor m_timer;
};

}  // namespace lbm::details
