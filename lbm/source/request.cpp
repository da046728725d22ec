#include "lbm/request.h"

#include <type_traits>
#include <utility>

#include "lbm/errors.h"
#include "lbm/source.h"

namespace lbm {

static_assert(!std::is_copy_constructible_v<Request> && !std::is_move_constructible_v<Request>);

Request::Request(lbm_src_t* src, const char* data, size_t length, int flags, MessageCallback cb, lbm_event_queue_t* evq)
    : Request(std::move(cb)) {
  details::ThrowIfFailed(SendEC(src, data, length, flags, evq), "Failed to send LBM request");
}

int Request::SendEC(lbm_src_t* src, const char* data, size_t length, int flags, lbm_event_queue_t* evq) noexcept {
  return lbm_send_request(&m_req, src, data, length, Source::LbmRequestCallback, this, evq, flags);
}

Request::~Request() {
  if (m_req != nullptr && details::Failed(lbm_request_delete(m_req))) {
    details::LogLbmError("Failed to delete LBM request");
  }
}

}  // namespace lbm
