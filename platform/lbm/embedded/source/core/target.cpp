#include "core/target.h"

#include "core/event_queue.h"

namespace engine::core {

void Target::dispatch(Event event) {
  if (m_queue != nullptr) {
    m_queue->post(shared_from_this(), std::move(event));
  } else {
    m_contextGate.call(*this, [&] { run(event); });
  }
}

void Target::closeAndWait() noexcept { (m_queue != nullptr ? m_queue->gate() : m_contextGate).closeAndWait(*this); }

}  // namespace engine::core
