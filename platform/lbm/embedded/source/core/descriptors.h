// The application's descriptors that a context watches.
#pragma once

#include <lbm/lbm.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "core/event_queue.h"
#include "core/few.h"
#include "core/membership.h"
#include "system/poller.h"

namespace engine::core {

// What lbm_register_fd was told.
struct DescriptorCallback {
  lbm_context_t* context = nullptr;
  lbm_fd_cb_proc proc = nullptr;
  void* clientd = nullptr;
  std::shared_ptr<EventQueue> queue;  // null: on the context's dispatching thread
  std::shared_ptr<void> keepAlive;    // has to outlive the callbacks: the owner of this table
};

// Threads: any, unless said otherwise.
class Descriptors {
 public:
  static constexpr std::size_t kEventsMax = 3;  // of a descriptor
  using Places = Few<std::shared_ptr<EventQueue>, kEventsMax>;

  // The descriptors are watched in the poller, with themselves as tokens.
  Descriptors(Poller& poller, std::shared_ptr<Membership> membership) noexcept
      : m_poller(poller), m_membership(std::move(membership)) {}

  // events: a mask of LBM_FD_EVENT_... Throws Error when the descriptor is registered for one of them already.
  void Add(int fd, lbm_ulong_t events, const DescriptorCallback& callback);

  // Ends the registrations for the events. No callback of them runs after it has returned, except the one that it is
  // called from. Needs no memory. Throws Error when there is none.
  void Cancel(int fd, lbm_ulong_t events);

  // The same without waiting. Returns the queues whose threads may be inside a callback of the ended registrations,
  // null for the context's own thread.
  Places CancelWithoutWaiting(int fd, lbm_ulong_t events);

  // Makes the callbacks for what the poller said of the descriptor, and returns how many. Threads: the dispatching one
  // only.
  std::size_t Ready(int fd, std::uint32_t epollEvents);

  bool Empty() const noexcept { return m_count.load(std::memory_order_relaxed) == 0; }

  // Ends all registrations and returns when no callback of them runs.
  void Clear();

 private:
  class Registration;
  using Registrations = Few<std::shared_ptr<Registration>, kEventsMax>;

  struct Watched {
    Registrations registrations;  // one an event
    bool inPoller = false;
    bool once = false;  // what is there is reported once
  };

  void Rearm(Registration& registration);
  // Lets the poller report what the armed registrations want. False, with errno, when it cannot: the descriptor is none
  // that can be watched, or the application closed it. once: not again before the next call.
  bool Watch(int fd, Watched& watched, bool once = false) noexcept;
  Registrations Take(int fd, lbm_ulong_t events);

  Poller& m_poller;
  const std::shared_ptr<Membership> m_membership;
  std::atomic<std::size_t> m_count{0};

  std::mutex m_mutex;
  std::map<int, Watched> m_watched;  // by descriptor; guarded by m_mutex
};

}  // namespace engine::core
