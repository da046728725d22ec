#include "core/receiver.h"

#include <utility>

#include "core/context.h"
#include "options/option_keys.h"

namespace engine::core {

Receiver::Receiver(std::shared_ptr<Context> context, const Topic& topic, const Callback& callback,
                   std::shared_ptr<EventQueue> queue)
    : Target(context->gate(), std::move(queue)),
      m_context(std::move(context)),
      m_topic(topic),
      m_callback(callback),
      m_lossBurstThreshold(topic.options->get(option::lossBurstThreshold)) {}

std::shared_ptr<Receiver> Receiver::self() { return std::static_pointer_cast<Receiver>(shared_from_this()); }

void Receiver::start() {
  m_context->post([self = self()] { self->m_context->directory().addReceiver(self); });
}

void Receiver::stop() {
  closeAndWait();
  m_context->post([self = self()] { self->m_context->directory().removeReceiver(*self); });
}

}  // namespace engine::core
