#include "lbm/receiver.h"

#include <type_traits>
#include <utility>

#include "delivery.h"
#include "lbm/context.h"
#include "lbm/errors.h"
#include "lbm/event_queue.h"
#include "log_statements.h"
#include "statistics.h"

namespace lbm {
namespace {

namespace field = details::receiver_field;

void Count(details::Row& row, const lbm_msg_t& msg) noexcept {
  const zq::statistics::Cells cells = row.Mine();
  switch (msg.type) {
    case LBM_MSG_REQUEST:
      cells.Add(field::kRequests);
      [[fallthrough]];
    case LBM_MSG_DATA:
      cells.Add(field::kMessages);
      cells.Add(field::kBytes, msg.len);
      break;
    case LBM_MSG_UNRECOVERABLE_LOSS:
      cells.Add(field::kLosses);
      cells.Add(field::kLostMessages);
      break;
    case LBM_MSG_UNRECOVERABLE_LOSS_BURST:
      cells.Add(field::kLosses);
      cells.Add(field::kLostMessages, msg.len);
      break;
    case LBM_MSG_BOS:
      cells.Add(field::kSessionsBegun);
      break;
    case LBM_MSG_EOS:
      cells.Add(field::kSessionsEnded);
      break;
    default:
      cells.Add(field::kOtherEvents);
      break;
  }
}

}  // namespace

static_assert(!std::is_copy_constructible_v<Receiver> && !std::is_move_constructible_v<Receiver>);

// NOLINTNEXTLINE(performance-unnecessary-value-param): a topic belongs to one receiver and is given away.
Receiver::Receiver(Context& ctx, ReceiverTopic topic, Callback cb, EventQueue* eq)
    : m_cbk(std::move(cb)),
      m_topic(topic.GetString()),
      m_row(details::ReceiverKind(), {details::StatisticsOf(ctx).name, details::StatisticsOf(ctx).handle, m_topic}),
      m_responses(details::StatisticsOf(ctx).responses) {
  LBM_LOG(ZQLOG_INFO, kReceiverCreating, "Creating receiver on topic=" << m_topic);
  details::ThrowIfFailed(lbm_rcv_create(&m_rcv, ctx, topic, LbmCallback, this, details::HandleOf(eq)),
                         "Failed to create LBM receiver");
}

Receiver::~Receiver() {
  LBM_LOG(ZQLOG_INFO, kReceiverDeleting, "Deleting receiver on topic=" << m_topic);
  lbm_rcv_delete(m_rcv);
  ++details::g_rowsGone;
}

void Receiver::SetString(const char* name, const char* value) {
  details::ThrowIfFailed(lbm_rcv_str_setopt(m_rcv, name, value), "Failed to set LBM receiver option");
}

int Receiver::LbmCallback(lbm_rcv_t*, lbm_msg_t* msg, void* clientd) {
  auto* const receiver = static_cast<Receiver*>(clientd);
  if (receiver == nullptr || !receiver->m_cbk) {
    return 0;
  }
  const auto deliver = [&] { details::Deliver(receiver->m_cbk, msg, receiver->m_row, field::kFailures); };
  if (msg != nullptr) {
    Count(receiver->m_row, *msg);
    if (msg->type == LBM_MSG_REQUEST) {
      const details::Answering answering(receiver->m_responses);
      deliver();
      return 0;
    }
  }
  deliver();
  return 0;
}

}  // namespace lbm
