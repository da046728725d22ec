#include "segment_publisher.h"

#include <algorithm>

#include "lbm/errors.h"
#include "ps_common/connector/topic_names.h"

namespace price_server {

SegmentPublisher::SegmentPublisher(lbm::Context& ctx, const ps_ns::ServerInstance& instance, unsigned short segments,
                                   std::uint64_t session) {
  const lbm::SourceTopicAttributes attributes;
  for (unsigned short number = 0; number < segments; ++number) {
    auto& segment = *m_segments.emplace_back(std::make_unique<Segment>());
    segment.message.session = session;
    segment.message.sequence = 1;
    segment.message.segment = number;
    const auto countSubscribers = [&segment](int event, void*) {
      if (event == LBM_SRC_EVENT_CONNECT) {
        ++segment.subscribers;
      }
      if (event == LBM_SRC_EVENT_DISCONNECT) {
        --segment.subscribers;
      }
    };
    const lbm::SourceTopic topic(ctx, ps_ns::TopicNames::CreateSegmentTopic(instance, number), attributes);
    segment.source = std::make_unique<lbm::Source>(ctx, topic, countSubscribers);
  }
}

bool SegmentPublisher::Send(unsigned short segment, const feed::Symbol& symbol, feed::Date date, feed::Price price) {
  auto& [subscribers, message, source] = *m_segments[segment];
  message.symbol = symbol;
  message.date = date;
  message.price = price;
  message.sentAt = feed::RealTimeNanoseconds();
  const auto bytes = feed::Encode(message);
  if (source->SendEC(bytes.data(), bytes.size(), LBM_SRC_FLUSH | LBM_SRC_NONBLOCK) == -1) {
    if (lbm_errnum() == LBM_EWOULDBLOCK) {
      return false;
    }
    throw lbm::LbmError("Failed to send a price");
  }
  ++message.sequence;
  return true;
}

bool SegmentPublisher::EverySegmentHasSubscriber() const {
  return std::all_of(m_segments.begin(), m_segments.end(),
                     [](const auto& segment) { return segment->subscribers > 0; });
}

}  // namespace price_server
