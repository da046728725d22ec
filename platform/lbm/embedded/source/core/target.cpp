#include "core/target.h"

#include "core/event_queue.h"

namespace engine::core {

void Target::Dispatch(Event event) {
  if (m_queue != nullptr) {
    m_queue->Post(shared_from_this(), std::move(event));
  } else {
    m_contextGate.Call(*this, [&] { Run(event); });
  }
}

void Target::CloseAndWait() noexcept { (m_queue != nullptr ? m_queue->Gate() : m_contextGate).CloseAndWait(*this); }

}  // namespace engine::core
