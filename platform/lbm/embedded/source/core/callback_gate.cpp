#include "core/callback_gate.h"

#include <utility>

namespace engine::core {

namespace {

thread_local constinit const Callee* t_callee = nullptr;

}  // namespace

InterruptibleCallback::InterruptibleCallback(const Callee& callee) noexcept
    : m_outer(std::exchange(t_callee, &callee)) {}

InterruptibleCallback::~InterruptibleCallback() { t_callee = m_outer; }

bool InterruptibleCallback::Interrupted() noexcept { return t_callee != nullptr && t_callee->Closed(); }

}  // namespace engine::core
