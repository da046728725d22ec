// Product information, for whoever listens.
#pragma once

#include <atomic>

#include "product_catalogue.h"
#include "ps_common/connector/server_instance.h"
#include "task_loop.h"
#include "topic_publisher.h"

namespace price_server {

// Publishes all products from the start of the loop on: at once, and again whenever another context has subscribed,
// once for several that subscribe together.
//
// Threads: made and destroyed while the loop is not running; publishes on the loop's.
class ProductPublisher {
 public:
  // All arguments have to outlive the publisher. Throws lbm::LbmError.
  ProductPublisher(lbm::Context& ctx, const ps_ns::ServerInstance& instance, const ProductCatalogue& catalogue,
                   TaskLoop& loop);

 private:
  void PublishSoon();

  const ProductCatalogue& m_catalogue;
  TaskLoop& m_loop;
  std::atomic<bool> m_isDue{false};
  TopicPublisher m_publisher;  // last: its events use the rest
};

}  // namespace price_server
