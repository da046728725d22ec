// Product information, for whoever listens.
#pragma once

#include "event_loop.h"
#include "product_catalogue.h"
#include "ps_common/connector/server_instance.h"
#include "topic_publisher.h"

namespace price_server {

// Publishes all products when the loop begins to run, and again whenever another context has subscribed, once for
// several that subscribe together.
//
// Threads: the loop's.
class ProductPublisher {
 public:
  // All arguments have to outlive the publisher. Throws lbm::LbmError.
  ProductPublisher(lbm::Context& ctx, const ps_ns::ServerInstance& instance, const ProductCatalogue& catalogue,
                   EventLoop& loop);

 private:
  void PublishSoon();

  const ProductCatalogue& m_catalogue;
  EventLoop& m_loop;
  bool m_isDue = false;
  TopicPublisher m_publisher;  // last: its events use the rest
};

}  // namespace price_server
