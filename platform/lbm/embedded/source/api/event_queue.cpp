#include <memory>

#include "api/arguments.h"
#include "api/attributes.h"
#include "api/errors.h"
#include "api/handles.h"
#include "options/option_keys.h"

using engine::api::Guarded;
using engine::api::Required;

int lbm_event_queue_create(lbm_event_queue_t** evq, lbm_event_queue_monitor_proc, void*,
                           const lbm_event_queue_attr_t* attr) {
  return Guarded(__func__, [&] {
    const engine::OptionSet options = engine::api::CreationOptions(attr);
    auto rows = std::make_unique<engine::core::OptionRows>("", "");
    rows->Add(engine::Scope::kEventQueue, options.Shown());
    const engine::core::EventQueue::Settings settings{
        .cancellationCallbacks = options.Get(engine::option::kQueueCancellationCallbacksEnabled),
        .bytesMax = options.Get(engine::option::kQueueBytesMax)};
    Required(evq, "evq") =
        new lbm_event_queue_t{{}, std::make_shared<engine::core::EventQueue>(settings), std::move(rows)};
    return 0;
  });
}

int lbm_event_dispatch(lbm_event_queue_t* evq, lbm_ulong_t msec) {
  return Guarded(__func__, [&] { return Required(evq, "evq").queue->Dispatch(msec); });
}

int lbm_event_dispatch_unblock(lbm_event_queue_t* evq) {
  return Guarded(__func__, [&] {
    Required(evq, "evq").queue->Unblock();
    return 0;
  });
}

int lbm_event_queue_shutdown(lbm_event_queue_t* evq) {
  return Guarded(__func__, [&] {
    Required(evq, "evq").queue->Shutdown();
    return 0;
  });
}

int lbm_event_queue_delete(lbm_event_queue_t* evq) {
  return Guarded(__func__, [&] {
    const std::unique_ptr<lbm_event_queue_t> handle(&Required(evq, "evq"));
    handle->queue->Shutdown();
    return 0;
  });
}
