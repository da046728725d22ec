// The server's answers to its clients' requests.
#pragma once

#include <string>
#include <vector>

#include "event_loop.h"
#include "feed/client_request.h"
#include "feed/client_response.h"
#include "lbm/context.h"
#include "lbm/message.h"
#include "lbm/receiver.h"
#include "product_catalogue.h"
#include "ps_common/connector/server_instance.h"
#include "status_publisher.h"

namespace price_server {

// Answers every request on the instance's request topic, one that is not understood with an error. Messages that are
// no requests are dropped.
//
// Threads: the loop's.
class RequestService {
 public:
  // All arguments have to outlive the service. Throws lbm::LbmError.
  RequestService(lbm::Context& ctx, const ps_ns::ServerInstance& instance, const ProductCatalogue& catalogue,
                 const StatusPublisher& status, EventLoop& loop);

 private:
  void Receive(const lbm::Message& message);
  void Answer(const lbm::Message& message) const;
  std::vector<feed::ClientResponse> ResponsesTo(const feed::ClientRequest& request) const;
  std::vector<feed::ClientResponse> AllProducts() const;

  const ProductCatalogue& m_catalogue;
  const StatusPublisher& m_status;
  EventLoop& m_loop;
  lbm::Receiver m_receiver;  // last: its callback uses the rest
};

}  // namespace price_server
