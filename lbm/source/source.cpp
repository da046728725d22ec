#include "lbm/source.h"

#include <numeric>
#include <span>
#include <stdexcept>
#include <string_view>
#include <type_traits>
#include <utility>

#include "delivery.h"
#include "lbm/context.h"
#include "lbm/errors.h"
#include "lbm/event_queue.h"
#include "log_statements.h"
#include "statistics.h"
#include "text_option.h"

namespace lbm {
namespace {

namespace field = details::source_field;

constexpr auto kSendFailed = "Failed to send LBM message";

std::size_t LengthOf(const iovec* pieces, int num) {
  const std::span all(pieces, num > 0 ? static_cast<std::size_t>(num) : 0);
  return std::accumulate(all.begin(), all.end(), std::size_t{0},
                         [](std::size_t sum, const iovec& piece) { return sum + piece.iov_len; });
}

}  // namespace

static_assert(!std::is_copy_constructible_v<Source> && !std::is_move_constructible_v<Source>);

// NOLINTNEXTLINE(performance-unnecessary-value-param): a topic belongs to one source and is given away.
Source::Source(Context& ctx, SourceTopic topic, Callback cb, EventQueue* eq) : m_cbk(std::move(cb)) {
  Create(ctx, topic, eq);
}

Source::Source(Callback cb) : m_cbk(std::move(cb)) {}

Source::~Source() { Destroy(); }

void Source::DoDeferredRegistration(Context& ctx, const SourceTopic& topic, EventQueue* eq) {
  if (m_src != nullptr || m_destroyed) {
    throw std::logic_error(std::string("LBM source ") + (m_destroyed ? "was destroyed" : "is registered") +
                           " and cannot be registered on topic=" + topic.GetString());
  }
  Create(ctx, topic, eq);
}

void Source::Create(Context& ctx, const SourceTopic& topic, EventQueue* eq) {
  m_topic = topic.GetString();
  LBM_LOG(ZQLOG_INFO, kSourceCreating, "Creating source on topic=" << m_topic);
  // Before it is created, for events may come at once.
  const details::ContextStatistics& context = details::StatisticsOf(ctx);
  m_row = std::make_shared<details::Row>(
      details::SourceKind(), std::initializer_list<std::string_view>{context.name, context.handle, m_topic});
  if (!m_cbk) {
    m_row->Set(field::kReceivers, -1);
  }
  if (details::Failed(lbm_src_create(&m_src, ctx, topic, m_cbk ? LbmCallback : nullptr, this, details::HandleOf(eq)))) {
    m_row.reset();
    details::ThrowLbmError("Failed to create LBM sender");
  }
}

void Source::Destroy() {
  LBM_LOG(ZQLOG_INFO, kSourceDeleting, "Deleting source on topic=" << m_topic);
  if (m_src != nullptr) {
    const int ret = lbm_src_delete(m_src);
    if (details::Failed(ret)) {
      details::LogLbmError("Failed to delete LBM source");
    } else {
      LBM_LOG(ZQLOG_DEBUG, kSourceDeleted, "Deleted topic=" << m_topic << " ret_code=" << ret);
    }
  }
  m_src = nullptr;
  m_row.reset();
  ++details::g_rowsGone;
  m_transport_id = 0;
  m_destroyed = true;
}

// Gives a send's result back.
int Source::Count(int result, std::size_t length, int flags) noexcept {
  if (m_row == nullptr) {
    return result;
  }
  const zq::statistics::Cells cells = m_row->Mine();
  if (!details::Failed(result)) {
    cells.Add(field::kMessages);
    cells.Add(field::kBytes, length);
  } else {
    cells.Add(field::kFailures);
    if ((flags & LBM_SRC_NONBLOCK) != 0) {
      cells.Add(field::kNonBlockingFailures);
    }
  }
  return result;
}

void Source::Send(const char* data, std::size_t length, int flags) {
  details::ThrowIfFailed(SendEC(data, length, flags), kSendFailed);
}

int Source::SendEC(const char* data, std::size_t length, int flags) noexcept {
  return Count(lbm_src_send(m_src, data, length, flags), length, flags);
}

void Source::SendEx(const char* data, std::size_t length, int flags, const lbm_src_send_ex_info_t* info) {
  details::ThrowIfFailed(SendExEC(data, length, flags, info), kSendFailed);
}

int Source::SendExEC(const char* data, std::size_t length, int flags, const lbm_src_send_ex_info_t* info) noexcept {
  return Count(lbm_src_send_ex(m_src, data, length, flags, info), length, flags);
}

void Source::Sendv(const iovec* pieces, int num, int flags) {
  details::ThrowIfFailed(Count(lbm_src_sendv(m_src, pieces, num, flags), LengthOf(pieces, num), flags), kSendFailed);
}

void Source::SendvEx(const iovec* pieces, int num, int flags, const lbm_src_send_ex_info_t* info) {
  details::ThrowIfFailed(Count(lbm_src_sendv_ex(m_src, pieces, num, flags, info), LengthOf(pieces, num), flags),
                         kSendFailed);
}

Request Source::SendRequest(const char* data, std::size_t length, int flags, MessageCallback cb, EventQueue* eq) {
  return Request(m_src, m_row, data, length, flags, std::move(cb), details::HandleOf(eq));
}

std::unique_ptr<Request> Source::SendRequestEC(const char* data, std::size_t length, int flags, MessageCallback cb,
                                               EventQueue* eq) {
  std::unique_ptr<Request> request(new Request(m_row, std::move(cb)));
  if (details::Failed(request->SendEC(m_src, data, length, flags, details::HandleOf(eq)))) {
    request.reset();
  }
  return request;
}

void Source::SetString(const char* name, const char* value) {
  details::ThrowIfFailed(lbm_src_str_setopt(m_src, name, value), "Failed to set LBM source option");
}

std::uint32_t Source::GetTransportId() {
  if (m_transport_id == 0) {
    std::uint32_t id = 0;
    std::size_t size = sizeof id;
    details::ThrowIfFailed(lbm_src_getopt(m_src, "transport_id", &id, &size), "Failed to get LBM source option");
    m_transport_id = id;
  }
  return m_transport_id;
}

std::string Source::GetTransportSource() const {
  return details::ReadTextOption(
      [&](char* text, std::size_t* length) { return lbm_src_str_getopt(m_src, "transport_source", text, length); },
      "Failed to get LBM source option");
}

const char* Source::EventToString(int event) noexcept {
  switch (event) {
    case LBM_SRC_EVENT_CONNECT:
      return "CONNECT";
    case LBM_SRC_EVENT_DISCONNECT:
      return "DISCONNECT";
    case LBM_SRC_EVENT_WAKEUP:
      return "WAKEUP";
    default:
      return "UNKNOWN";
  }
}

int Source::LbmCallback(lbm_src_t*, int event, void* eventData, void* clientd) {
  const auto* source = static_cast<const Source*>(clientd);
  if (source == nullptr || !source->m_cbk) {
    return 0;
  }
  details::Row& row = *source->m_row;
  if (event == LBM_SRC_EVENT_CONNECT) {
    row.Add(field::kReceivers);
  } else if (event == LBM_SRC_EVENT_DISCONNECT) {
    row.Subtract(field::kReceivers);
  } else if (event == LBM_SRC_EVENT_WAKEUP) {
    row.Add(field::kWakeups);
  }
  details::CallApplication(nullptr, row, field::kCallbackFailures, [&] { source->m_cbk(event, eventData); });
  return 0;
}

int Source::LbmRequestCallback(lbm_request_t*, lbm_msg_t* msg, void* clientd) {
  const auto* request = static_cast<const Request*>(clientd);
  if (request == nullptr || !request->m_cbk) {
    return 0;
  }
  if (msg != nullptr && msg->type == LBM_MSG_RESPONSE) {
    request->m_row->Add(field::kResponses);
    request->m_row->Add(field::kResponseBytes, msg->len);
  }
  details::Deliver(request->m_cbk, msg, *request->m_row, field::kCallbackFailures);
  return 0;
}

}  // namespace lbm
