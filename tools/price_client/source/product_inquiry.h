// Asking a server instance for its products.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

#include "feed/client_response.h"
#include "lbm/message.h"
#include "ps_common/connector/lbm_client_resource_mgr.h"

namespace price_client {

// Sends the request again, at growing intervals, until the server has answered: it may not listen to the client yet
// when it comes up, and nobody says when it does.
//
// Threads: for one thread; onResponse is called on the dispatch thread.
class ProductInquiry {
 public:
  using Clock = std::chrono::steady_clock;

  // onResponse takes whatever comes as a response. What it is to hand to Take.
  ProductInquiry(ps_ns::SourcePtr source, lbm::MessageCallback onResponse);

  // The server has come up or was replaced: asks at once, whatever was answered before.
  void Begin(Clock::time_point now);

  // The server is gone.
  void End();

  // To be called now and then: sends what is due.
  void Pursue(Clock::time_point now);

  void Take(const feed::ClientResponse& response);

 private:
  static constexpr Clock::duration kFirstInterval = std::chrono::seconds(1);
  static constexpr Clock::duration kLongestInterval = std::chrono::seconds(30);

  void Ask();

  const ps_ns::SourcePtr m_source;
  const lbm::MessageCallback m_onResponse;
  std::uint64_t m_id = 0;  // of the last request
  bool m_isOpen = false;
  Clock::duration m_interval = kFirstInterval;
  Clock::time_point m_due;
  std::unique_ptr<lbm::Request> m_request;
};

}  // namespace price_client
