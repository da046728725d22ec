#include <climits>
#include <memory>
#include <span>

#include "api/endpoints.h"
#include "api/errors.h"
#include "api/option_calls.h"
#include "api/send.h"

using engine::FixedOptions;
using engine::api::Guarded;
using engine::api::Required;
using engine::core::Source;
using engine::transport::OutboundMessage;

namespace {

// A source has the options of its topic and its own place on the transport; none can be changed once it lives.
FixedOptions OptionsOf(const lbm_src_t* src) { return FixedOptions(Required(src, "src").source->Options()); }

int Send(const char* function, lbm_src_t* src, std::span<const iovec> pieces, int flags,
         const lbm_src_send_ex_info_t* info) {
  OutboundMessage message{.pieces = pieces, .requestId = 0, .channel = {}};
  if (info != nullptr && (info->flags & LBM_SRC_SEND_EX_FLAG_CHANNEL) != 0) {
    message.channel = info->channel_number;
  }
  return engine::api::ResultOf(function, Required(src, "src").source->Send(message, flags));
}

int SendPieces(const char* function, lbm_src_t* src, const iovec* iov, int num, int flags,
               const lbm_src_send_ex_info_t* info) noexcept {
  return Guarded(function, [&] {
    if (num < 0 || num > IOV_MAX) {
      throw engine::Error(LBM_EINVAL,
                          "num is " + std::to_string(num) + "; it has to be 0 to " + std::to_string(IOV_MAX));
    }
    if (num != 0) {
      engine::api::RequireNotNull(iov, "iov");
    }
    const std::span pieces(iov, static_cast<std::size_t>(num));
    for (const iovec& piece : pieces) {
      if (piece.iov_len != 0) {
        engine::api::RequireNotNull(piece.iov_base, "iov[].iov_base");
      }
    }
    return Send(function, src, pieces, flags, info);
  });
}

int SendOne(const char* function, lbm_src_t* src, const char* data, size_t len, int flags,
            const lbm_src_send_ex_info_t* info) noexcept {
  return Guarded(function, [&] {
    const iovec piece = engine::api::PieceOf(data, len);
    return Send(function, src, {&piece, 1}, flags, info);
  });
}

}  // namespace

int lbm_src_create(lbm_src_t** src, lbm_context_t* ctx, lbm_topic_t* topic, lbm_src_cb_proc proc, void* clientd,
                   lbm_event_queue_t* evq) {
  return Guarded(__func__, [&] {
    Required(src, "src");
    const auto& context = Required(ctx, "ctx").context;
    auto handle = std::make_unique<lbm_src_t>();
    handle->context = context;
    context->CreateSource(engine::api::TopicFor(*context, topic, engine::Scope::kSource),
                          {.proc = proc, .handle = handle.get(), .clientd = clientd}, engine::api::QueueOf(evq),
                          handle->source);
    *src = handle.release();
    return 0;
  });
}

int lbm_src_delete(lbm_src_t* src) {
  return Guarded(__func__, [&] {
    const std::unique_ptr<lbm_src_t> handle(&Required(src, "src"));
    handle->context->DeleteSource(*handle->source);
    return 0;
  });
}

int lbm_src_setopt(lbm_src_t* src, const char* optname, const void* optval, size_t optlen) {
  return Guarded(__func__, [&] { return engine::api::SetOption(OptionsOf(src), optname, optval, optlen); });
}

int lbm_src_getopt(lbm_src_t* src, const char* optname, void* optval, size_t* optlen) {
  return Guarded(__func__, [&] { return engine::api::GetOption(OptionsOf(src), optname, optval, optlen); });
}

int lbm_src_str_setopt(lbm_src_t* src, const char* optname, const char* optval) {
  return Guarded(__func__, [&] { return engine::api::SetTextOption(OptionsOf(src), optname, optval); });
}

int lbm_src_str_getopt(lbm_src_t* src, const char* optname, char* optval, size_t* optlen) {
  return Guarded(__func__, [&] { return engine::api::GetTextOption(OptionsOf(src), optname, optval, optlen); });
}

int lbm_src_send(lbm_src_t* src, const char* data, size_t len, int flags) {
  return SendOne(__func__, src, data, len, flags, nullptr);
}

int lbm_src_sendv(lbm_src_t* src, const struct iovec* iov, int num, int flags) {
  return SendPieces(__func__, src, iov, num, flags, nullptr);
}

int lbm_src_send_ex(lbm_src_t* src, const char* data, size_t len, int flags, const lbm_src_send_ex_info_t* info) {
  return SendOne(__func__, src, data, len, flags, info);
}

int lbm_src_sendv_ex(lbm_src_t* src, const struct iovec* iov, int num, int flags, const lbm_src_send_ex_info_t* info) {
  return SendPieces(__func__, src, iov, num, flags, info);
}

int lbm_send_request(lbm_request_t** req, lbm_src_t* src, const char* data, size_t len, lbm_request_cb_proc proc,
                     void* clientd, lbm_event_queue_t* evq, int flags) {
  constexpr const char* kFunction = "lbm_send_request";
  return Guarded(kFunction, [&] {
    Required(req, "req");
    engine::api::RequireNotNull(proc, "proc");
    const auto context = Required(src, "src").context;
    Source& source = *src->source;
    const iovec payload = engine::api::PieceOf(data, len);
    auto handle = std::make_unique<lbm_request_t>();
    handle->context = context;
    const auto request = context->OpenRequest(source, {.proc = proc, .handle = handle.get(), .clientd = clientd},
                                              engine::api::QueueOf(evq), handle->request);
    struct CloseUnlessSent {
      engine::core::Context& context;
      engine::core::Request& request;
      std::unique_ptr<lbm_request_t>& handle;
      bool sent = false;
      ~CloseUnlessSent() {
        if (!sent) {
          context.CloseRequest(request);
        }
        if (sent || request.HandleDeleted()) {
          static_cast<void>(handle.release());
        }
      }
    } guard{*context, *request, handle};
    const auto outcome = source.Send({.pieces = {&payload, 1}, .requestId = request->Id(), .channel = {}}, flags);
    const int result = engine::api::ResultOf(kFunction, outcome);
    if (result == 0) {
      guard.sent = true;
      *req = handle.get();
    }
    return result;
  });
}

int lbm_request_delete(lbm_request_t* req) {
  return Guarded(__func__, [&] {
    const std::unique_ptr<lbm_request_t> handle(&Required(req, "req"));
    handle->request->NoteHandleDeleted();
    handle->context->CloseRequest(*handle->request);
    return 0;
  });
}
