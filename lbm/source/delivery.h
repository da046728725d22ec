// How a delivered message reaches a callback.
#pragma once

#include <utility>

#include "lbm/message.h"

namespace lbm::details {

// One reference taken, and given back unless the callback kept it. With an empty callback the message is not touched.
inline void Deliver(const MessageCallback& callback, lbm_msg_t* msg) {
  if (callback) {
    Message message(msg);
    callback(std::move(message));
  }
}

}  // namespace lbm::details
