#include "product_publisher.h"

#include <utility>

#include "ps_common/connector/topic_names.h"

namespace price_server {

ProductPublisher::ProductPublisher(lbm::Context& ctx, const ps_ns::ServerInstance& instance,
                                   const ProductCatalogue& catalogue, EventLoop& loop)
    : m_catalogue(catalogue),
      m_loop(loop),
      m_publisher(ctx, ps_ns::TopicNames::CreateProductResponseTopic(instance), [this] { PublishSoon(); }) {
  PublishSoon();
}

void ProductPublisher::PublishSoon() {
  if (std::exchange(m_isDue, true)) {
    return;
  }
  m_loop.Post([this] {
    m_isDue = false;
    for (std::uint32_t product = 0; product < m_catalogue.Size(); ++product) {
      m_publisher.Publish(feed::Encode(m_catalogue.At(product)));
    }
  });
}

}  // namespace price_server
