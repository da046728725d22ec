#include "topic_publisher.h"

#include "log_statement.h"
#include "zq/logging/logger.h"

namespace price_server {

TopicPublisher::TopicPublisher(lbm::Context& ctx, const std::string& topic, const std::function<void()>& onSubscriber)
    : m_source(ctx, lbm::SourceTopic(ctx, topic, lbm::SourceTopicAttributes()), [onSubscriber](int event, void*) {
        if (event == LBM_SRC_EVENT_CONNECT && onSubscriber) {
          onSubscriber();
        }
      }) {}

void TopicPublisher::Publish(const std::string& message) {
  if (m_source.SendEC(message.data(), message.size(), LBM_SRC_FLUSH | LBM_SRC_NONBLOCK) == -1) {
    ZQLOG(ZQLOG_WARNING, kServerStatement,
          "Dropped a message on topic=\"" << m_source.GetTopic() << "\": " << lbm_errmsg());
  }
}

}  // namespace price_server
