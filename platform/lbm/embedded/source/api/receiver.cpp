#include <memory>

#include "api/endpoints.h"
#include "api/errors.h"
#include "api/option_calls.h"

using engine::FixedOptions;
using engine::api::Guarded;
using engine::api::Required;

namespace {

// A receiver has the options of its topic; none can be changed once it lives.
FixedOptions OptionsOf(const lbm_rcv_t* rcv) {
  return FixedOptions(*Required(rcv, "rcv").opened.receiver->GetTopic().options);
}

}  // namespace

int lbm_rcv_create(lbm_rcv_t** rcv, lbm_context_t* ctx, lbm_topic_t* topic, lbm_rcv_cb_proc proc, void* clientd,
                   lbm_event_queue_t* evq) {
  return Guarded(__func__, [&] {
    Required(rcv, "rcv");
    engine::api::RequireNotNull(proc, "proc");
    const auto& context = Required(ctx, "ctx").context;
    auto handle = std::make_unique<lbm_rcv_t>();
    handle->context = context;
    context->CreateReceiver(engine::api::TopicFor(*context, topic, engine::Scope::kReceiver),
                            {.proc = proc, .handle = handle.get(), .clientd = clientd}, engine::api::QueueOf(evq),
                            handle->opened);
    *rcv = handle.release();
    return 0;
  });
}

int lbm_rcv_delete(lbm_rcv_t* rcv) {
  return Guarded(__func__, [&] {
    const std::unique_ptr<lbm_rcv_t> handle(&Required(rcv, "rcv"));
    handle->context->DeleteReceiver(std::move(handle->opened));
    return 0;
  });
}

int lbm_rcv_setopt(lbm_rcv_t* rcv, const char* optname, const void* optval, size_t optlen) {
  return Guarded(__func__, [&] { return engine::api::SetOption(OptionsOf(rcv), optname, optval, optlen); });
}

int lbm_rcv_getopt(lbm_rcv_t* rcv, const char* optname, void* optval, size_t* optlen) {
  return Guarded(__func__, [&] { return engine::api::GetOption(OptionsOf(rcv), optname, optval, optlen); });
}

int lbm_rcv_str_setopt(lbm_rcv_t* rcv, const char* optname, const char* optval) {
  return Guarded(__func__, [&] { return engine::api::SetTextOption(OptionsOf(rcv), optname, optval); });
}

int lbm_rcv_str_getopt(lbm_rcv_t* rcv, const char* optname, char* optval, size_t* optlen) {
  return Guarded(__func__, [&] { return engine::api::GetTextOption(OptionsOf(rcv), optname, optval, optlen); });
}
