#include "core/callback_gate.h"

#include <utility>

namespace engine::core {

namespace {

thread_local constinit const CallbackGate::Scope* t_innermost = nullptr;
thread_local constinit const CallbackGate::Elsewhere* t_innermostElsewhere = nullptr;

}  // namespace

CallbackGate::Scope::Scope(CallbackGate& gate) noexcept : m_gate(gate), m_outer(std::exchange(t_innermost, this)) {
  m_gate.m_thread.store(std::this_thread::get_id());
}

CallbackGate::Scope::~Scope() {
  m_gate.m_thread.store({});
  t_innermost = m_outer;
}

const CallbackGate::Scope* CallbackGate::Innermost() noexcept { return t_innermost; }

CallbackGate::Elsewhere::Elsewhere(CallbackGate& gate) noexcept
    : m_gate(gate), m_outer(std::exchange(t_innermostElsewhere, this)) {
  m_gate.m_elsewhere.fetch_add(1);
}

CallbackGate::Elsewhere::~Elsewhere() {
  t_innermostElsewhere = m_outer;
  m_gate.m_elsewhere.fetch_sub(1);
  m_gate.m_elsewhere.notify_all();
}

const CallbackGate::Elsewhere* CallbackGate::InnermostElsewhere() noexcept { return t_innermostElsewhere; }

void CallbackGate::WaitForElsewhere() noexcept {
  int own = 0;
  for (const Elsewhere* call = InnermostElsewhere(); call != nullptr; call = call->m_outer) {
    own += &call->m_gate == this ? 1 : 0;
  }
  m_awaited.store(true);
  for (int running = m_elsewhere.load(); running > own; running = m_elsewhere.load()) {
    m_elsewhere.wait(running);
  }
}

bool CallbackGate::CallbackAwaited() noexcept {
  for (const Elsewhere* call = InnermostElsewhere(); call != nullptr; call = call->m_outer) {
    if (call->m_gate.m_awaited.load()) {
      return true;
    }
  }
  for (const Scope* scope = Innermost(); scope != nullptr; scope = scope->m_outer) {
    const Callee* const running = scope->m_gate.m_running.load();
    if (running != nullptr && (running->m_awaited.load() || scope->m_gate.m_awaited.load())) {
      return true;
    }
  }
  return false;
}

void CallbackGate::WaitFor(Callee& callee) noexcept {
  callee.m_awaited.store(true);
  m_waiters.fetch_add(1);
  while (m_running.load() == &callee) {
    m_running.wait(&callee);
  }
  m_waiters.fetch_sub(1);
}

}  // namespace engine::core
