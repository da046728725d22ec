#include <climits>
#include <memory>
#include <span>

#include "api/endpoints.h"
#include "api/errors.h"
#include "api/option_calls.h"
#include "api/send.h"

using engine::LiveOptions;
using engine::api::guarded;
using engine::api::required;
using engine::core::Request;
using engine::core::Source;
using engine::transport::OutboundMessage;

namespace {

// A source has the options of its topic and its own place on the transport; none can be changed once it lives.
LiveOptions optionsOf(const lbm_src_t* src) { return LiveOptions(required(src, "src").source->options()); }

int send(const char* function, lbm_src_t* src, std::span<const iovec> pieces, int flags,
         const lbm_src_send_ex_info_t* info) {
  OutboundMessage message{.pieces = pieces, .requestId = 0, .channel = {}};
  if (info != nullptr && (info->flags & LBM_SRC_SEND_EX_FLAG_CHANNEL) != 0) {
    message.channel = info->channel_number;
  }
  return engine::api::resultOf(function, required(src, "src").source->send(message, flags));
}

int sendPieces(const char* function, lbm_src_t* src, const iovec* iov, int num, int flags,
               const lbm_src_send_ex_info_t* info) noexcept {
  return guarded(function, [&] {
    if (num < 0 || num > IOV_MAX) {
      throw engine::Error(LBM_EINVAL,
                          "num is " + std::to_string(num) + "; it has to be 0 to " + std::to_string(IOV_MAX));
    }
    if (num != 0) {
      engine::api::requireNotNull(iov, "iov");
    }
    const std::span pieces(iov, static_cast<std::size_t>(num));
    for (const iovec& piece : pieces) {
      if (piece.iov_len != 0) {
        engine::api::requireNotNull(piece.iov_base, "iov[].iov_base");
      }
    }
    return send(function, src, pieces, flags, info);
  });
}

int sendOne(const char* function, lbm_src_t* src, const char* data, size_t len, int flags,
            const lbm_src_send_ex_info_t* info) noexcept {
  return guarded(function, [&] {
    const iovec piece = engine::api::pieceOf(data, len);
    return send(function, src, {&piece, 1}, flags, info);
  });
}

}  // namespace

int lbm_src_create(lbm_src_t** src, lbm_context_t* ctx, lbm_topic_t* topic, lbm_src_cb_proc proc, void* clientd,
                   lbm_event_queue_t* evq) {
  return guarded(__func__, [&] {
    required(src, "src");
    const auto& context = required(ctx, "ctx").context;
    auto handle = std::make_unique<lbm_src_t>();
    handle->source = std::make_shared<Source>(
        context, engine::api::topicFor(*context, topic, engine::Scope::source),
        Source::Callback{.proc = proc, .handle = handle.get(), .clientd = clientd}, engine::api::queueOf(evq));
    handle->source->start();
    *src = handle.release();
    return 0;
  });
}

int lbm_src_delete(lbm_src_t* src) {
  return guarded(__func__, [&] {
    const std::unique_ptr<lbm_src_t> handle(&required(src, "src"));
    handle->source->stop();
    return 0;
  });
}

int lbm_src_setopt(lbm_src_t* src, const char* optname, const void* optval, size_t optlen) {
  return guarded(__func__, [&] {
    LiveOptions options = optionsOf(src);
    return engine::api::setOption(options, optname, optval, optlen);
  });
}

int lbm_src_getopt(lbm_src_t* src, const char* optname, void* optval, size_t* optlen) {
  return guarded(__func__, [&] { return engine::api::getOption(optionsOf(src), optname, optval, optlen); });
}

int lbm_src_str_setopt(lbm_src_t* src, const char* optname, const char* optval) {
  return guarded(__func__, [&] {
    LiveOptions options = optionsOf(src);
    return engine::api::setTextOption(options, optname, optval);
  });
}

int lbm_src_str_getopt(lbm_src_t* src, const char* optname, char* optval, size_t* optlen) {
  return guarded(__func__, [&] { return engine::api::getTextOption(optionsOf(src), optname, optval, optlen); });
}

int lbm_src_send(lbm_src_t* src, const char* data, size_t len, int flags) {
  return sendOne(__func__, src, data, len, flags, nullptr);
}

int lbm_src_sendv(lbm_src_t* src, const struct iovec* iov, int num, int flags) {
  return sendPieces(__func__, src, iov, num, flags, nullptr);
}

int lbm_src_send_ex(lbm_src_t* src, const char* data, size_t len, int flags, const lbm_src_send_ex_info_t* info) {
  return sendOne(__func__, src, data, len, flags, info);
}

int lbm_src_sendv_ex(lbm_src_t* src, const struct iovec* iov, int num, int flags, const lbm_src_send_ex_info_t* info) {
  return sendPieces(__func__, src, iov, num, flags, info);
}

int lbm_send_request(lbm_request_t** req, lbm_src_t* src, const char* data, size_t len, lbm_request_cb_proc proc,
                     void* clientd, lbm_event_queue_t* evq, int flags) {
  constexpr const char* kFunction = "lbm_send_request";
  return guarded(kFunction, [&] {
    required(req, "req");
    engine::api::requireNotNull(proc, "proc");
    Source& source = *required(src, "src").source;
    const iovec piece = engine::api::pieceOf(data, len);
    auto handle = std::make_unique<lbm_request_t>();
    handle->request = std::make_shared<Request>(
        source.context(), source.topic().name,
        Request::Callback{.proc = proc, .handle = handle.get(), .clientd = clientd}, engine::api::queueOf(evq));
    struct Withdraw {
      lbm_request_t& request;
      bool sent = false;
      ~Withdraw() {
        if (!sent) {
          request.request->stop();
        }
      }
    } withdraw{*handle};
    handle->request->start();
    const int result = engine::api::resultOf(
        kFunction, source.send({.pieces = {&piece, 1}, .requestId = handle->request->id(), .channel = {}}, flags));
    if (result == 0) {
      withdraw.sent = true;
      *req = handle.release();
    }
    return result;
  });
}

int lbm_request_delete(lbm_request_t* req) {
  return guarded(__func__, [&] {
    const std::unique_ptr<lbm_request_t> handle(&required(req, "req"));
    handle->request->stop();
    return 0;
  });
}
