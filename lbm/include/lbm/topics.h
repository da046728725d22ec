// Topics as receivers and sources use them.
#pragma once

#include <lbm/lbm.h>

#include <string>

#pragma GCC visibility push(default)

namespace lbm {

class Context;
class ReceiverTopicAttributes;
class SourceTopicAttributes;

namespace details {

// What the two kinds of topics share: the name, and the library's handle, which belongs to the context. A value: copies
// share the handle.
class Topic {
 public:
  const std::string& GetString() const noexcept { return m_str; }
  operator lbm_topic_t*() const noexcept { return m_topic; }

 protected:
  Topic() = default;

  std::string m_str;
  lbm_topic_t* m_topic = nullptr;
};

}  // namespace details

// A topic to receive.
class ReceiverTopic : public details::Topic {
 public:
  using Attributes = ReceiverTopicAttributes;

  // Throws LbmError.
  ReceiverTopic(Context& ctx, const std::string& name, const ReceiverTopicAttributes& attrs);
};

// A topic to send on, allocated for exactly one source.
class SourceTopic : public details::Topic {
 public:
  using Attributes = SourceTopicAttributes;

  // Throws LbmError.
  SourceTopic(Context& ctx, const std::string& name, const SourceTopicAttributes& attrs);
};

}  // namespace lbm

#pragma GCC visibility pop
