#include "lbm/receiver.h"

#include <type_traits>
#include <utility>

#include "delivery.h"
#include "lbm/context.h"
#include "lbm/errors.h"
#include "lbm/event_queue.h"
#include "log_statements.h"

namespace lbm {

static_assert(!std::is_copy_constructible_v<Receiver> && !std::is_move_constructible_v<Receiver>);

// NOLINTNEXTLINE(performance-unnecessary-value-param): a topic belongs to one receiver and is given away.
Receiver::Receiver(Context& ctx, ReceiverTopic topic, Callback cb, EventQueue* eq)
    : m_cbk(std::move(cb)), m_topic(topic.GetString()) {
  LBM_LOG(ZQLOG_INFO, kReceiverCreating, "Creating receiver on topic=" << m_topic);
  details::ThrowIfFailed(lbm_rcv_create(&m_rcv, ctx, topic, LbmCallback, this, details::HandleOf(eq)),
                         "Failed to create LBM receiver");
}

Receiver::~Receiver() {
  LBM_LOG(ZQLOG_INFO, kReceiverDeleting, "Deleting receiver on topic=" << m_topic);
  lbm_rcv_delete(m_rcv);
}

void Receiver::SetString(const char* name, const char* value) {
  details::ThrowIfFailed(lbm_rcv_str_setopt(m_rcv, name, value), "Failed to set LBM receiver option");
}

int Receiver::LbmCallback(lbm_rcv_t*, lbm_msg_t* msg, void* clientd) {
  if (clientd != nullptr) {
    details::Deliver(static_cast<Receiver*>(clientd)->m_cbk, msg);
  }
  return 0;
}

}  // namespace lbm
