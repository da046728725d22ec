#include "product_inquiry.h"

#include <utility>

#include "feed/client_request.h"
#include "lbm/attributes.h"
#include "lbm/errors.h"

namespace price_client {

ProductInquiry::ProductInquiry(lbm::Context& context, const std::string& topic, lbm::MessageCallback onResponse)
    : m_onResponse(std::move(onResponse)),
      m_requests(context, lbm::SourceTopic(context, topic, lbm::SourceTopicAttributes())) {}

void ProductInquiry::Begin(Clock::time_point now) {
  m_isOpen = true;
  Ask(now);
}

void ProductInquiry::End() {
  m_isOpen = false;
  m_request = {};
}

void ProductInquiry::Pursue(Clock::time_point now) {
  if (m_isOpen && now >= m_due && !m_request.IsOpen()) {
    Ask(now);
  }
}

void ProductInquiry::Ask(Clock::time_point now) {
  m_due = now + kTimeout;
  feed::ClientRequest request;
  request.id = ++m_id;
  request.request = feed::kProductsRequest;
  // Which response is the last is found out off the dispatch thread, by Take.
  const auto onResponse = [this](lbm::Message message) {
    m_onResponse(std::move(message));
    return lbm::Answer::kPartial;
  };
  m_request = {};
  try {
    m_request = m_requests.Ask(feed::Encode(request), {kTimeout}, onResponse);
  } catch (const lbm::LbmError&) {
    // It is logged, and asked again when the time is up.
  }
}

void ProductInquiry::Take(const feed::ClientResponse& response) {
  if (m_isOpen && response.id == m_id && response.isLast) {
    End();
  }
}

}  // namespace price_client
