#include "lbm/topics.h"

#include "lbm/attributes.h"
#include "lbm/context.h"
#include "lbm/errors.h"

namespace lbm {

ReceiverTopic::ReceiverTopic(Context& ctx, const std::string& name, const ReceiverTopicAttributes& attrs) {
  details::ThrowIfFailed(lbm_rcv_topic_lookup(&m_topic, ctx, name.c_str(), attrs), "Failed to lookup LBM topic");
  m_str = name;
}

SourceTopic::SourceTopic(Context& ctx, const std::string& name, const SourceTopicAttributes& attrs) {
  details::ThrowIfFailed(lbm_src_topic_alloc(&m_topic, ctx, name.c_str(), attrs), "Failed to create LBM topic");
  m_str = name;
}

}  // namespace lbm
