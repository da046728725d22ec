#include "core/callback_gate.h"

#include <utility>

namespace engine::core {

namespace {

thread_local constinit const CallbackGate::Scope* t_innermost = nullptr;

}  // namespace

CallbackGate::Scope::Scope(CallbackGate& gate) noexcept : m_gate(gate), m_outer(std::exchange(t_innermost, this)) {
  m_gate.m_thread.store(std::this_thread::get_id());
}

CallbackGate::Scope::~Scope() {
  m_gate.m_thread.store({});
  t_innermost = m_outer;
}

const CallbackGate::Scope* CallbackGate::Innermost() noexcept { return t_innermost; }

bool CallbackGate::CallbackAwaited() noexcept {
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
