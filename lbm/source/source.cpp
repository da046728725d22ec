#include "lbm/source.h"

#include <stdexcept>
#include <type_traits>
#include <utility>

#include "delivery.h"
#include "lbm/context.h"
#include "lbm/errors.h"
#include "lbm/event_queue.h"
#include "log_statements.h"
#include "text_option.h"

namespace lbm {
namespace {

constexpr auto kSendFailed = "Failed to send LBM message";

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
  details::ThrowIfFailed(lbm_src_create(&m_src, ctx, topic, m_cbk ? LbmCallback : nullptr, this, details::HandleOf(eq)),
                         "Failed to create LBM sender");
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
  m_transport_id = 0;
  m_destroyed = true;
}

void Source::Send(const char* data, std::size_t length, int flags) {
  details::ThrowIfFailed(SendEC(data, length, flags), kSendFailed);
}

int Source::SendEC(const char* data, std::size_t length, int flags) noexcept {
  return lbm_src_send(m_src, data, length, flags);
}

void Source::SendEx(const char* data, std::size_t length, int flags, const lbm_src_send_ex_info_t* info) {
  details::ThrowIfFailed(SendExEC(data, length, flags, info), kSendFailed);
}

int Source::SendExEC(const char* data, std::size_t length, int flags, const lbm_src_send_ex_info_t* info) noexcept {
  return lbm_src_send_ex(m_src, data, length, flags, info);
}

void Source::Sendv(const iovec* pieces, int num, int flags) {
  details::ThrowIfFailed(lbm_src_sendv(m_src, pieces, num, flags), kSendFailed);
}

void Source::SendvEx(const iovec* pieces, int num, int flags, const lbm_src_send_ex_info_t* info) {
  details::ThrowIfFailed(lbm_src_sendv_ex(m_src, pieces, num, flags, info), kSendFailed);
}

Request Source::SendRequest(const char* data, std::size_t length, int flags, MessageCallback cb, EventQueue* eq) {
  return Request(m_src, data, length, flags, std::move(cb), details::HandleOf(eq));
}

std::unique_ptr<Request> Source::SendRequestEC(const char* data, std::size_t length, int flags, MessageCallback cb,
                                               EventQueue* eq) {
  std::unique_ptr<Request> request(new Request(std::move(cb)));
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
  if (source != nullptr && source->m_cbk) {
    source->m_cbk(event, eventData);
  }
  return 0;
}

int Source::LbmRequestCallback(lbm_request_t*, lbm_msg_t* msg, void* clientd) {
  if (clientd != nullptr) {
    details::Deliver(static_cast<const Request*>(clientd)->m_cbk, msg);
  }
  return 0;
}

}  // namespace lbm
