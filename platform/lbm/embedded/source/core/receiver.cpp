#include "core/receiver.h"

#include <utility>

#include "core/context.h"
#include "options/option_keys.h"

namespace engine::core {

Receiver::Receiver(std::shared_ptr<Context> context, const Topic& topic, const Callback& callback,
                   std::shared_ptr<EventQueue> queue)
    : Target(context->Gate(), std::move(queue)),
      m_context(std::move(context)),
      m_topic(topic),
      m_callback(callback),
      m_lossBurstThreshold(topic.options->Get(option::kLossBurstThreshold)) {}

std::shared_ptr<Receiver> Receiver::Self() { return std::static_pointer_cast<Receiver>(shared_from_this()); }

void Receiver::Start() {
  m_context->Post([self = Self()] { self->m_context->GetDirectory().AddReceiver(self); });
}

void Receiver::Stop() {
  CloseAndWait();
  m_context->Post([self = Self()] { self->m_context->GetDirectory().RemoveReceiver(*self); });
}

}  // namespace engine::core
