#include "api/errors.h"
#include "api/send.h"
#include "core/message_pool.h"

using engine::Error;
using engine::api::Guarded;
using engine::api::Required;
using engine::core::Message;

int lbm_msg_retain(lbm_msg_t* msg) {
  if (msg == nullptr) {
    return engine::api::Fail(LBM_EINVAL, "lbm_msg_retain: the argument msg is null");
  }
  Message::Of(*msg).Retain();
  return 0;
}

int lbm_msg_delete(lbm_msg_t* msg) {
  if (msg == nullptr) {
    return engine::api::Fail(LBM_EINVAL, "lbm_msg_delete: the argument msg is null");
  }
  Message::Of(*msg).Release();
  return 0;
}

int lbm_msg_send_explicit_ack(lbm_msg_t* msg) {
  return Guarded(__func__, [&]() -> int {
    if ((Required(msg, "msg").flags & LBM_MSG_FLAG_EXPLICIT_ACK) == 0) {
      throw Error(LBM_EOP, "the message was not sent for explicit acknowledgement");
    }
    return 0;
  });
}

int lbm_send_response(lbm_response_t* response, const char* data, size_t len, int flags) {
  return Guarded(__func__, [&] {
    const iovec payload = engine::api::PieceOf(data, len);
    return engine::api::ResultOf("lbm_send_response", Required(response, "response").Send(payload, flags));
  });
}

int lbm_response_delete(lbm_response_t* response) {
  return Guarded(__func__, [&] {
    delete &Required(response, "response");
    return 0;
  });
}
