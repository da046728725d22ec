#include "core/source.h"

#include <utility>

#include "core/context.h"
#include "options/option_keys.h"
#include "system/error.h"

namespace engine::core {

namespace {

transport::Pacing pacingOf(const Topic& topic) {
  return topic.options->get(option::transportPacing) == TransportPacing::receiver ? transport::Pacing::receiver
                                                                                  : transport::Pacing::source;
}

}  // namespace

Source::Source(std::shared_ptr<Context> context, const Topic& topic, const Callback& callback,
               std::shared_ptr<EventQueue> queue)
    : Target(context->gate(), std::move(queue)),
      m_context(std::move(context)),
      m_topic(topic),
      m_callback(callback),
      m_id(m_context->nextSourceId()),
      m_session(m_context->sessionName(m_id)),
      m_pacing(pacingOf(topic)) {}

void Source::start() {
  m_context->advertise({.topic = m_topic.name, .session = m_session, .pacing = m_pacing},
                       m_callback.proc != nullptr ? std::static_pointer_cast<Source>(shared_from_this()) : nullptr,
                       m_publication);
}

void Source::stop() {
  m_context->withdraw(*m_publication);
  closeAndWait();
}

transport::SendResult Source::send(const transport::OutboundMessage& message, int flags) {
  const auto refuse = [this] {
    throw Error(LBM_EOP, "the context of the source on topic " + m_topic.name + " is deleted");
  };
  if (m_context->deleted()) {
    refuse();
  }
  const bool block =
      m_pacing == transport::Pacing::receiver && (flags & LBM_SRC_NONBLOCK) == 0 && !contextGate().dispatching();
  const transport::SendResult result = m_context->transport().publish(*m_publication, message, block);
  if (result == transport::SendResult::closed) {
    refuse();
  }
  return result;
}

void Source::run(Event& event) {
  void* data = event.code == LBM_SRC_EVENT_WAKEUP ? nullptr : event.text.data();
  m_callback.proc(m_callback.handle, event.code, data, m_callback.clientd);
}

OptionSet Source::options() const {
  OptionSet options = *m_topic.options;
  options.provide(option::transportId, m_id);
  options.provide(option::transportSource, m_session);
  return options;
}

}  // namespace engine::core
