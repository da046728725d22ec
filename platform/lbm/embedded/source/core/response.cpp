#include "core/response.h"

#include "core/context.h"
#include "system/error.h"

namespace engine::core {

transport::SendResult Response::Send(std::span<const std::byte> payload, int flags) const {
  const auto refuse = [] { throw Error(LBM_EOP, "the context that received the request is deleted"); };
  if (m_context->Deleted()) {
    refuse();
  }
  const iovec piece{const_cast<std::byte*>(payload.data()), payload.size()};
  const bool block = (flags & LBM_SRC_NONBLOCK) == 0 && !m_context->Gate().Dispatching();
  const transport::SendResult result = m_context->Transport().Respond(*m_path, std::span(&piece, 1), block);
  if (result == transport::SendResult::kClosed) {
    refuse();
  }
  if (result == transport::SendResult::kPeerGone) {
    throw Error(LBM_EOP, "the requester is gone");
  }
  return result;
}

}  // namespace engine::core
