#include "core/response.h"

#include "system/error.h"

namespace engine::core {

transport::SendResult Response::Send(const iovec& payload, int flags) const {
  const transport::SendResult result =
      m_membership->Respond(*m_path, std::span(&payload, 1), (flags & LBM_SRC_NONBLOCK) == 0);
  if (result == transport::SendResult::kClosed) {
    throw Error(LBM_EOP, "the context that received the request is deleted");
  }
  if (result == transport::SendResult::kPeerGone) {
    throw Error(LBM_EOP, "the requester is gone");
  }
  return result;
}

}  // namespace engine::core
