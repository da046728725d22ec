// Keeps callbacks and the deletion of what they belong to apart.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace engine::core {

// Runs a function of the application's. It must not throw: nobody up the stack could handle it, so an exception ends
// the process, as from any thread's function.
template <class Callback>
void CallApplication(Callback&& callback) noexcept {
  callback();
}

// Something with callbacks that ends at a moment of the application's choosing.
class Callee {
 public:
  Callee() = default;
  Callee(const Callee&) = delete;
  Callee& operator=(const Callee&) = delete;
  virtual ~Callee() = default;

  // No callback begins after this; one that is running goes on.
  void Close() noexcept { m_closed.store(true); }
  bool Closed() const noexcept { return m_closed.load(); }

 private:
  std::atomic<bool> m_closed{false};
};

// While it lives, the calling thread is in a callback whose waits end when its callee is closed: whoever closes it
// waits for the callback, which must not keep it for the sake of a peer that is stopped.
class InterruptibleCallback {
 public:
  explicit InterruptibleCallback(const Callee& callee) noexcept;
  ~InterruptibleCallback();
  InterruptibleCallback(const InterruptibleCallback&) = delete;
  InterruptibleCallback& operator=(const InterruptibleCallback&) = delete;

  // Whether the calling thread is in such a callback and its callee is closed.
  static bool Interrupted() noexcept;

 private:
  const Callee* const m_outer;  // a callback may dispatch an event queue, and so run another callback
};

// Runs the callbacks of one dispatching place (a context or an event queue), one at a time, and lets a deleting thread
// wait for a callback that is running.
//
// Call announces the callee before it looks whether it is closed, and a deleter closes the callee before it looks
// whether it is announced. All four accesses are sequentially consistent, so at least one of the two sees the other:
// either the callback does not begin or the deleter waits for its end.
class CallbackGate {
 public:
  // The calling thread dispatches here from now on, until the Scope ends.
  class Scope {
   public:
    explicit Scope(CallbackGate& gate) noexcept : m_gate(gate) { m_gate.m_thread.store(std::this_thread::get_id()); }
    ~Scope() { m_gate.m_thread.store({}); }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    CallbackGate& m_gate;
  };

  // Runs the callback unless the callee is closed. Threads: inside a Scope.
  template <class Callback>
  void Call(const Callee& callee, Callback&& callback) {
    m_running.store(&callee);
    if (!callee.Closed() && !Shut()) {
      CallApplication(callback);
    }
    m_running.store(nullptr);
    if (m_waiters.load() != 0) {
      WakeWaiters();
    }
  }

  // Closes the callee and returns when none of its callbacks runs here. On the dispatching thread itself it does not
  // wait: there the running callback, if any, is a caller of this.
  void CloseAndWait(Callee& callee) noexcept {
    callee.Close();
    if (Dispatching() || m_running.load() != &callee) {
      return;
    }
    std::unique_lock lock(m_mutex);
    ++m_waiters;
    m_idle.wait(lock, [&] { return m_running.load() != &callee; });
    --m_waiters;
  }

  // No callback of anything begins here any more.
  void ShutDown() noexcept { m_shut.store(true); }
  bool Shut() const noexcept { return m_shut.load(); }

  // Whether the calling thread is the one that dispatches here.
  bool Dispatching() const noexcept { return m_thread.load() == std::this_thread::get_id(); }

 private:
  void WakeWaiters() noexcept {
    const std::lock_guard lock(m_mutex);
    m_idle.notify_all();
  }

  std::atomic<const Callee*> m_running{nullptr};
  std::atomic<std::thread::id> m_thread{};
  std::atomic<int> m_waiters{0};
  std::atomic<bool> m_shut{false};
  std::mutex m_mutex;  // with m_idle only
  std::condition_variable m_idle;
};

}  // namespace engine::core
