// Asking a server instance for its products.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "feed/client_response.h"
#include "lbm/message.h"
#include "lbm/pending_request.h"
#include "lbm/request_source.h"

namespace price_client {

// Asks until the server has told all its products: whether it listens already when it comes up is left to the request.
//
// Threads: for one thread; onResponse is called on the dispatch thread.
class ProductInquiry {
 public:
  using Clock = std::chrono::steady_clock;

  // onResponse takes whatever comes as a response. What it is to hand to Take. Throws lbm::LbmError.
  ProductInquiry(lbm::Context& context, const std::string& topic, lbm::MessageCallback onResponse);

  // The server has come up or was replaced: asks at once, whatever was answered before.
  void Begin(Clock::time_point now);

  // The server is gone.
  void End();

  // To be called now and then: asks again when the answer was not complete in time.
  void Pursue(Clock::time_point now);

  void Take(const feed::ClientResponse& response);

 private:
  static constexpr std::chrono::seconds kTimeout{15};

  void Ask(Clock::time_point now);

  const lbm::MessageCallback m_onResponse;
  lbm::RequestSource m_requests;
  std::uint64_t m_id = 0;  // of the last request
  bool m_isOpen = false;
  Clock::time_point m_due;  // for the next request
  lbm::PendingRequest m_request;
};

}  // namespace price_client
