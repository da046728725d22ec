// Topics as receivers and sources use them.
#pragma once

#include <lbm/lbm.h>

#include <string>

namespace lbm {

class Context;
class ReceiverTopicAttributes;
class SourceTopicAttributes;

// A topic to receive. A value: copies share the library's handle, which belongs to the context.
class ReceiverTopic {
 public:
  ReceiverTopic(Context& ctx, const std::string& name, const ReceiverTopicAttributes& attrs);

  const std::string& GetString() const noexcept { return m_str; }
  operator lbm_topic_t*() const noexcept { return m_topic; }

 private:
  std::string m_str;
  lbm_topic_t* m_topic = nullptr;
};

// A topic to send on, allocated for exactly one source. A value, as above.
class SourceTopic {
 public:
  SourceTopic(Context& ctx, const std::string& name, const SourceTopicAttributes& attrs);

  const std::string& GetString() const noexcept { return m_str; }
  operator lbm_topic_t*() const noexcept { return m_topic; }

 private:
  std::string m_str;
  lbm_topic_t* m_topic = nullptr;
};

}  // namespace lbm
