#include "lbm/message.h"

#include <type_traits>

#include "lbm/errors.h"

namespace lbm {
namespace {

const char* TypeName(int type) noexcept {
  switch (type) {
    case LBM_MSG_DATA:
      return "DATA";
    case LBM_MSG_EOS:
      return "EOS";
    case LBM_MSG_REQUEST:
      return "REQUEST";
    case LBM_MSG_RESPONSE:
      return "RESPONSE";
    case LBM_MSG_UNRECOVERABLE_LOSS:
      return "UNRECOVERABLE_LOSS";
    case LBM_MSG_UNRECOVERABLE_LOSS_BURST:
      return "UNRECOVERABLE_LOSS_BURST";
    case LBM_MSG_NO_SOURCE_NOTIFICATION:
      return "NO_SOURCE_NOTIFICATION";
    case LBM_MSG_BOS:
      return "BOS";
    default:
      return "UNKNOWN";
  }
}

}  // namespace

static_assert(std::is_nothrow_copy_constructible_v<Message> && std::is_nothrow_move_constructible_v<Message>);
static_assert(sizeof(Message) == sizeof(lbm_msg_t*));

void Message::SendExplicitAck() const {
  details::ThrowIfFailed(lbm_msg_send_explicit_ack(m_msg), "Failed to send LBM explicit acknowledgement");
}

std::string Message::ToString() const {
  if (m_msg == nullptr) {
    return "no message";
  }
  return std::string("type=") + TypeName(Type()) + '(' + std::to_string(Type()) + ") topic=" + TopicName() +
         " source=" + Source() + " sqn=" + std::to_string(SequenceNumber()) + " flags=" + std::to_string(Flags()) +
         " length=" + std::to_string(Length());
}

}  // namespace lbm
