#include "lbm/request.h"

#include <type_traits>
#include <utility>

#include "delivery.h"
#include "lbm/errors.h"
#include "lbm/source.h"
#include "statistics.h"

namespace lbm {

static_assert(!std::is_copy_constructible_v<Request> && !std::is_move_constructible_v<Request>);

Request::Request(std::shared_ptr<zq::statistics::Row> row, MessageCallback cb)
    : m_cbk(std::move(cb)), m_row(row != nullptr ? std::move(row) : std::make_shared<details::Row>()) {}

Request::Request(lbm_src_t* src, std::shared_ptr<zq::statistics::Row> row, const char* data, size_t length, int flags,
                 MessageCallback cb, lbm_event_queue_t* evq)
    : Request(std::move(row), std::move(cb)) {
  details::ThrowIfFailed(SendEC(src, data, length, flags, evq), "Failed to send LBM request");
}

int Request::SendEC(lbm_src_t* src, const char* data, size_t length, int flags, lbm_event_queue_t* evq) noexcept {
  const int result = lbm_send_request(&m_req, src, data, length, Source::LbmRequestCallback, this, evq, flags);
  if (details::Failed(result)) {
    m_row->Add(details::source_field::kRequestFailures);
    return result;
  }
  const zq::statistics::Cells cells = m_row->Mine();
  cells.Add(details::source_field::kRequests);
  cells.Add(details::source_field::kMessages);
  cells.Add(details::source_field::kBytes, length);
  return result;
}

Request::~Request() {
  if (m_req != nullptr && details::Failed(lbm_request_delete(m_req))) {
    details::LogLbmError("Failed to delete LBM request");
  }
  ++details::g_rowsGone;
}

}  // namespace lbm
