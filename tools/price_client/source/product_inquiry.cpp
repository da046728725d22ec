#include "product_inquiry.h"

#include <algorithm>
#include <utility>

#include "feed/client_request.h"
#include "lbm/errors.h"

namespace price_client {

ProductInquiry::ProductInquiry(ps_ns::SourcePtr source, lbm::MessageCallback onResponse)
    : m_source(std::move(source)), m_onResponse(std::move(onResponse)) {}

void ProductInquiry::Begin(Clock::time_point now) {
  m_isOpen = true;
  m_interval = kFirstInterval;
  m_due = now;
}

void ProductInquiry::End() {
  m_isOpen = false;
  m_request.reset();
}

void ProductInquiry::Pursue(Clock::time_point now) {
  if (!m_isOpen || now < m_due) {
    return;
  }
  Ask();
  m_due = now + m_interval;
  m_interval = std::min(2 * m_interval, kLongestInterval);
}

void ProductInquiry::Ask() {
  feed::ClientRequest request;
  request.id = ++m_id;
  request.request = feed::kProductsRequest;
  const auto bytes = feed::Encode(request);
  m_request.reset();
  try {
    m_request.reset(
        new lbm::Request(m_source->SendRequest(bytes.data(), bytes.size(), LBM_SRC_NONBLOCK, m_onResponse)));
  } catch (const lbm::LbmError&) {
    // There was no room, say. It is asked again anyway.
  }
}

void ProductInquiry::Take(const feed::ClientResponse& response) {
  if (m_isOpen && response.id == m_id && response.isLast) {
    End();
  }
}

}  // namespace price_client
