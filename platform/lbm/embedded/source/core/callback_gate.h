// Keeps callbacks and the deletion of what they belong to apart.
#pragma once

#include <atomic>
#include <string_view>
#include <thread>

#include "system/atomic.h"

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
  friend class CallbackGate;

  Atomic<bool> m_closed{false};
  Atomic<bool> m_awaited{false};  // somebody waits for a running callback to return
};

// Runs the callbacks of one dispatching place (a context or an event queue), one at a time, and lets a deleting thread
// wait for a callback that is running.
//
// Call announces the callee before it looks whether it is closed, and a deleter closes the callee before it looks
// whether it is announced. All four accesses are sequentially consistent, so at least one of the two sees the other:
// either the callback does not begin or the deleter waits for its end. In the same way a call that ends withdraws its
// announcement before it looks for waiters, and who waits says so before it looks for the announcement.
class CallbackGate {
 public:
  // identity: of the context that dispatches here, see transport::Transport::Identity; kept by the caller. Empty for an
  // event queue.
  explicit CallbackGate(std::string_view identity = {}) noexcept : m_identity(identity) {}

  // The calling thread dispatches here from now on, until the Scope ends. Scopes of several gates nest: a callback may
  // dispatch an event queue.
  class Scope {
   public:
    explicit Scope(CallbackGate& gate) noexcept;
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    friend class CallbackGate;

    CallbackGate& m_gate;
    const Scope* const m_outer;
  };

  // While it lives, something that belongs to the context of the gate is called back on this thread, which dispatches
  // an event queue. Callers look whether the gate is shut once they have made it, and who has shut the gate waits for
  // all of them, whatever has been deleted meanwhile.
  class Elsewhere {
   public:
    explicit Elsewhere(CallbackGate& gate) noexcept;
    ~Elsewhere();
    Elsewhere(const Elsewhere&) = delete;
    Elsewhere& operator=(const Elsewhere&) = delete;

   private:
    friend class CallbackGate;

    CallbackGate& m_gate;
    const Elsewhere* const m_outer;
  };
  // Returns when none is left but those on the calling thread. For a gate that is shut.
  void WaitForElsewhere() noexcept;

  // Runs the callback unless the callee is closed. Threads: inside a Scope.
  template <class Callback>
  void Call(const Callee& callee, Callback&& callback) {
    m_running.store(&callee);
    if (!callee.Closed() && !Shut()) {
      CallApplication(callback);
    }
    m_running.store(nullptr);
    if (m_waiters.load() != 0) {
      m_running.notify_all();
    }
  }

  // Closes the callee and returns when none of its callbacks runs here. On the dispatching thread itself it does not
  // wait: there the running callback, if any, is a caller of this.
  void CloseAndWait(Callee& callee) noexcept {
    callee.Close();
    if (!Dispatching() && m_running.load() == &callee) {
      WaitFor(callee);
    }
  }

  // No callback of anything begins here any more.
  void ShutDown() noexcept { m_shut.store(true); }
  // The same for somebody who waits for a running callback to return.
  void ShutDownAwaited() noexcept {
    m_awaited.store(true);
    ShutDown();
  }
  bool Shut() const noexcept { return m_shut.load(); }

  // Whether the calling thread is the one that dispatches here.
  bool Dispatching() const noexcept { return m_thread.load() == std::this_thread::get_id(); }

  // Whether somebody waits for a callback in which the calling thread is, at any gate. It should then wait for nothing
  // itself: a peer that is stopped must not hold up the deletion.
  static bool CallbackAwaited() noexcept;

  // Whether the predicate holds for the identity of a context that dispatches on the calling thread.
  template <class Predicate>
  static bool AnyDispatchingHere(Predicate predicate) {
    for (const Scope* scope = Innermost(); scope != nullptr; scope = scope->m_outer) {
      if (!scope->m_gate.m_identity.empty() && predicate(scope->m_gate.m_identity)) {
        return true;
      }
    }
    return false;
  }

 private:
  static const Scope* Innermost() noexcept;
  static const Elsewhere* InnermostElsewhere() noexcept;
  void WaitFor(Callee& callee) noexcept;

  const std::string_view m_identity;
  Atomic<const Callee*> m_running{nullptr};
  std::atomic<std::thread::id> m_thread{};
  std::atomic<int> m_elsewhere{0};
  Atomic<int> m_waiters{0};
  Atomic<bool> m_shut{false};
  Atomic<bool> m_awaited{false};
};

}  // namespace engine::core
