#include <memory>

#include "api/endpoints.h"
#include "api/errors.h"
#include "api/option_calls.h"

using engine::Error;
using engine::LiveOptions;
using engine::api::guarded;
using engine::api::required;
using engine::core::Receiver;

namespace {

// A receiver has the options of its topic; none can be changed once it lives.
LiveOptions optionsOf(const lbm_rcv_t* rcv) { return LiveOptions(*required(rcv, "rcv").receiver->topic().options); }

}  // namespace

int lbm_rcv_create(lbm_rcv_t** rcv, lbm_context_t* ctx, lbm_topic_t* topic, lbm_rcv_cb_proc proc, void* clientd,
                   lbm_event_queue_t* evq) {
  return guarded(__func__, [&] {
    required(rcv, "rcv");
    engine::api::requireNotNull(proc, "proc");
    const auto& context = required(ctx, "ctx").context;
    if (context->deleted()) {
      throw Error(LBM_EOP, "the context is deleted");
    }
    auto handle = std::make_unique<lbm_rcv_t>();
    handle->receiver = std::make_shared<Receiver>(
        context, engine::api::topicFor(*context, topic, engine::Scope::receiver),
        Receiver::Callback{.proc = proc, .handle = handle.get(), .clientd = clientd}, engine::api::queueOf(evq));
    handle->receiver->start();
    *rcv = handle.release();
    return 0;
  });
}

int lbm_rcv_delete(lbm_rcv_t* rcv) {
  return guarded(__func__, [&] {
    const std::unique_ptr<lbm_rcv_t> handle(&required(rcv, "rcv"));
    handle->receiver->stop();
    return 0;
  });
}

int lbm_rcv_setopt(lbm_rcv_t* rcv, const char* optname, const void* optval, size_t optlen) {
  return guarded(__func__, [&] {
    LiveOptions options = optionsOf(rcv);
    return engine::api::setOption(options, optname, optval, optlen);
  });
}

int lbm_rcv_getopt(lbm_rcv_t* rcv, const char* optname, void* optval, size_t* optlen) {
  return guarded(__func__, [&] { return engine::api::getOption(optionsOf(rcv), optname, optval, optlen); });
}

int lbm_rcv_str_setopt(lbm_rcv_t* rcv, const char* optname, const char* optval) {
  return guarded(__func__, [&] {
    LiveOptions options = optionsOf(rcv);
    return engine::api::setTextOption(options, optname, optval);
  });
}

int lbm_rcv_str_getopt(lbm_rcv_t* rcv, const char* optname, char* optval, size_t* optlen) {
  return guarded(__func__, [&] { return engine::api::getTextOption(optionsOf(rcv), optname, optval, optlen); });
}
