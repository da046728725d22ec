#include "core/source.h"

#include <utility>

#include "core/context.h"
#include "options/option_keys.h"
#include "system/error.h"

namespace engine::core {

namespace {

transport::Pacing PacingOf(const Topic& topic) {
  return topic.options->Get(option::kTransportPacing) == TransportPacing::kReceiver ? transport::Pacing::kReceiver
                                                                                    : transport::Pacing::kSource;
}

}  // namespace

Source::Source(std::shared_ptr<Context> context, const Topic& topic, const Callback& callback,
               std::shared_ptr<EventQueue> queue)
    : Target(context->Gate(), std::move(queue)),
      m_context(std::move(context)),
      m_topic(topic),
      m_callback(callback),
      m_id(m_context->NextSourceId()),
      m_session(m_context->SessionName(m_id)),
      m_pacing(PacingOf(topic)) {}

void Source::Start() {
  m_context->Advertise({.topic = m_topic.name, .session = m_session, .pacing = m_pacing},
                       m_callback.proc != nullptr ? std::static_pointer_cast<Source>(shared_from_this()) : nullptr,
                       m_publication);
}

void Source::Stop() {
  m_context->Withdraw(*m_publication);
  CloseAndWait();
}

transport::SendResult Source::Send(const transport::OutboundMessage& message, int flags) {
  const auto refuse = [this] {
    throw Error(LBM_EOP, "the context of the source on topic " + m_topic.name + " is deleted");
  };
  if (m_context->Deleted()) {
    refuse();
  }
  const bool block =
      m_pacing == transport::Pacing::kReceiver && (flags & LBM_SRC_NONBLOCK) == 0 && !ContextGate().Dispatching();
  const transport::SendResult result = m_context->Transport().Publish(*m_publication, message, block);
  if (result == transport::SendResult::kClosed) {
    refuse();
  }
  return result;
}

void Source::Run(Event& event) {
  void* data = event.code == LBM_SRC_EVENT_WAKEUP ? nullptr : event.text.data();
  m_callback.proc(m_callback.handle, event.code, data, m_callback.clientd);
}

OptionSet Source::Options() const {
  OptionSet options = *m_topic.options;
  options.Provide(option::kTransportId, m_id);
  options.Provide(option::kTransportSource, m_session);
  return options;
}

}  // namespace engine::core
