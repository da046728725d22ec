#include "core/event_queue.h"

#include <memory>

#include "api/arguments.h"
#include "api/attributes.h"
#include "api/errors.h"

using engine::api::guarded;
using engine::api::required;

int lbm_event_queue_create(lbm_event_queue_t** evq, lbm_event_queue_monitor_proc, void*,
                           const lbm_event_queue_attr_t* attr) {
  return guarded(__func__, [&] {
    const bool cancellations = engine::api::options(attr).get(engine::option::queueCancellationCallbacksEnabled);
    required(evq, "evq") = new lbm_event_queue_t{std::make_shared<engine::core::EventQueue>(cancellations)};
    return 0;
  });
}

int lbm_event_dispatch(lbm_event_queue_t* evq, lbm_ulong_t msec) {
  return guarded(__func__, [&] { return required(evq, "evq").queue->dispatch(msec); });
}

int lbm_event_dispatch_unblock(lbm_event_queue_t* evq) {
  return guarded(__func__, [&] {
    required(evq, "evq").queue->unblock();
    return 0;
  });
}

int lbm_event_queue_shutdown(lbm_event_queue_t* evq) {
  return guarded(__func__, [&] {
    required(evq, "evq").queue->shutdown();
    return 0;
  });
}

int lbm_event_queue_delete(lbm_event_queue_t* evq) {
  return guarded(__func__, [&] {
    const std::unique_ptr<lbm_event_queue_t> handle(&required(evq, "evq"));
    handle->queue->shutdown();
    return 0;
  });
}
