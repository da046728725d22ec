// What the calls for sources, receivers and requests share.
#pragma once

#include <lbm/lbm.h>

#include <memory>
#include <string>

#include "api/arguments.h"
#include "api/handles.h"

namespace engine::api {

inline std::shared_ptr<core::EventQueue> QueueOf(const lbm_event_queue_t* evq) {
  return evq != nullptr ? Required(evq, "evq").queue : nullptr;
}

// The topic, when it was made on this context and for this kind of endpoint.
inline const core::Topic& TopicFor(core::Context& context, const lbm_topic_t* topic, Scope scope) {
  const core::Topic& known = Required(topic, "topic");
  if (&known.table != &context.Topics()) {
    throw Error(LBM_EINVAL, "the topic " + known.name + " belongs to another context");
  }
  if (known.options->GetScope() != scope) {
    throw Error(LBM_EINVAL, "the topic " + known.name + " was made for a " +
                                std::string(NameOf(known.options->GetScope())) + " and not for a " +
                                std::string(NameOf(scope)));
  }
  return known;
}

}  // namespace engine::api
