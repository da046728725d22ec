// Which thread is inside a transport's drain, so that a send there never waits.
#pragma once

#include <atomic>
#include <thread>

#include "transport/transport.h"

namespace engine::transport {

class DrainingThread {
 public:
  // The calling thread is inside while it lives. One at a time.
  class Scope {
   public:
    explicit Scope(DrainingThread& draining) noexcept : m_thread(draining.m_thread) {
      m_thread.store(std::this_thread::get_id(), std::memory_order_relaxed);
    }
    ~Scope() { m_thread.store(std::thread::id(), std::memory_order_relaxed); }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    std::atomic<std::thread::id>& m_thread;
  };

  // The wait as it may be on the calling thread.
  SendWait Allowed(const SendWait& wait) const noexcept {
    return {wait.allowed && m_thread.load(std::memory_order_relaxed) != std::this_thread::get_id(), wait.givesUp};
  }

 private:
  std::atomic<std::thread::id> m_thread{};
};

}  // namespace engine::transport
