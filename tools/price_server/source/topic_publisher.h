// A source of messages that are rare, and not worth waiting for.
#pragma once

#include <functional>
#include <string>

#include "lbm/context.h"
#include "lbm/source.h"

namespace price_server {

// Threads: onSubscriber is called on the context's. ctx has to outlive the publisher.
class TopicPublisher {
 public:
  // onSubscriber is called whenever another context has subscribed; it may be empty. Throws lbm::LbmError.
  TopicPublisher(lbm::Context& ctx, const std::string& topic, const std::function<void()>& onSubscriber = {});

  // Does not wait: a message that cannot be sent at once is dropped with a warning.
  void Publish(const std::string& message);

 private:
  lbm::Source m_source;
};

}  // namespace price_server
