#include <memory>

#include "api/endpoints.h"
#include "api/errors.h"
#include "api/option_calls.h"

using engine::Error;
using engine::LiveOptions;
using engine::api::Guarded;
using engine::api::Required;
using engine::core::Receiver;

namespace {

// A receiver has the options of its topic; none can be changed once it lives.
LiveOptions OptionsOf(const lbm_rcv_t* rcv) { return LiveOptions(*Required(rcv, "rcv").receiver->GetTopic().options); }

}  // namespace

int lbm_rcv_create(lbm_rcv_t** rcv, lbm_context_t* ctx, lbm_topic_t* topic, lbm_rcv_cb_proc proc, void* clientd,
                   lbm_event_queue_t* evq) {
  return Guarded(__func__, [&] {
    Required(rcv, "rcv");
    engine::api::RequireNotNull(proc, "proc");
    const auto& context = Required(ctx, "ctx").context;
    if (context->Deleted()) {
      throw Error(LBM_EOP, "the context is deleted");
    }
    auto handle = std::make_unique<lbm_rcv_t>();
    handle->receiver = std::make_shared<Receiver>(
        context, engine::api::TopicFor(*context, topic, engine::Scope::kReceiver),
        Receiver::Callback{.proc = proc, .handle = handle.get(), .clientd = clientd}, engine::api::QueueOf(evq));
    handle->receiver->Start();
    *rcv = handle.release();
    return 0;
  });
}

int lbm_rcv_delete(lbm_rcv_t* rcv) {
  return Guarded(__func__, [&] {
    const std::unique_ptr<lbm_rcv_t> handle(&Required(rcv, "rcv"));
    handle->receiver->Stop();
    return 0;
  });
}

int lbm_rcv_setopt(lbm_rcv_t* rcv, const char* optname, const void* optval, size_t optlen) {
  return Guarded(__func__, [&] {
    LiveOptions options = OptionsOf(rcv);
    return engine::api::SetOption(options, optname, optval, optlen);
  });
}

int lbm_rcv_getopt(lbm_rcv_t* rcv, const char* optname, void* optval, size_t* optlen) {
  return Guarded(__func__, [&] { return engine::api::GetOption(OptionsOf(rcv), optname, optval, optlen); });
}

int lbm_rcv_str_setopt(lbm_rcv_t* rcv, const char* optname, const char* optval) {
  return Guarded(__func__, [&] {
    LiveOptions options = OptionsOf(rcv);
    return engine::api::SetTextOption(options, optname, optval);
  });
}

int lbm_rcv_str_getopt(lbm_rcv_t* rcv, const char* optname, char* optval, size_t* optlen) {
  return Guarded(__func__, [&] { return engine::api::GetTextOption(OptionsOf(rcv), optname, optval, optlen); });
}
