#include "product_publisher.h"

#include "ps_common/connector/topic_names.h"

namespace price_server {

ProductPublisher::ProductPublisher(lbm::Context& ctx, const ps_ns::ServerInstance& instance,
                                   const ProductCatalogue& catalogue, TaskLoop& loop)
    : m_catalogue(catalogue),
      m_loop(loop),
      m_publisher(ctx, ps_ns::TopicNames::CreateProductResponseTopic(instance), [this] { PublishSoon(); }) {
  PublishSoon();
}

void ProductPublisher::PublishSoon() {
  if (m_isDue.exchange(true)) {
    return;
  }
  const bool isPosted = m_loop.Post([this] {
    m_isDue = false;
    for (std::uint32_t product = 0; product < m_catalogue.Size(); ++product) {
      m_publisher.Publish(feed::Encode(m_catalogue.At(product)));
    }
  });
  if (!isPosted) {
    m_isDue = false;
  }
}

}  // namespace price_server
