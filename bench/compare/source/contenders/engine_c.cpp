// This engine, through its C interface.
#include <lbm/lbm.h>

#include "lbm_check.h"
#include "this_engine.h"

namespace compare {

namespace {

class EngineNode : public Node {
 public:
  explicit EngineNode(const NodeSetup& setup) : m_polled(!setup.subscribes.empty()), m_sink(setup.sink) {
    lbm_context_attr_t* attributes = nullptr;
    Check(lbm_context_attr_create(&attributes));
    Check(lbm_context_attr_str_setopt(attributes, "operational_mode", m_polled ? "sequential" : "embedded"));
    Check(lbm_context_create(&m_context, attributes, nullptr, nullptr));
    Check(lbm_context_attr_delete(attributes));

    lbm_src_topic_attr_t* lossless = nullptr;
    Check(lbm_src_topic_attr_create(&lossless));
    Check(lbm_src_topic_attr_str_setopt(lossless, "transport_pacing", "receiver"));
    for (const std::string& name : setup.publishes) {
      lbm_topic_t* topic = nullptr;
      Check(lbm_src_topic_alloc(&topic, m_context, name.c_str(), lossless));
      Check(lbm_src_create(&m_sources.emplace_back(), m_context, topic, nullptr, nullptr, nullptr));
    }
    Check(lbm_src_topic_attr_delete(lossless));
    for (const std::string& name : setup.subscribes) {
      lbm_topic_t* topic = nullptr;
      Check(lbm_rcv_topic_lookup(&topic, m_context, name.c_str(), nullptr));
      Check(lbm_rcv_create(&m_receivers.emplace_back(), m_context, topic, Deliver, this, nullptr));
    }
  }

  ~EngineNode() override {
    for (lbm_rcv_t* receiver : m_receivers) {
      lbm_rcv_delete(receiver);
    }
    for (lbm_src_t* source : m_sources) {
      lbm_src_delete(source);
    }
    lbm_context_delete(m_context);
  }

  void Send(std::size_t topic, const char* data, std::size_t length) override {
    Check(lbm_src_send(m_sources[topic], data, length, 0));
  }

  void Poll(int timeoutMs) override {
    Check(lbm_context_process_events(m_context, static_cast<lbm_ulong_t>(timeoutMs)));
  }

 private:
  static int Deliver(lbm_rcv_t*, lbm_msg_t* message, void* clientd) {
    if (message->type == LBM_MSG_DATA) {
      static_cast<EngineNode*>(clientd)->m_sink->Take(message->data, message->len);
    }
    return 0;
  }

  const bool m_polled;
  Sink* const m_sink;
  lbm_context_t* m_context = nullptr;
  std::vector<lbm_src_t*> m_sources;
  std::vector<lbm_rcv_t*> m_receivers;
};

}  // namespace

Contender MakeContender(const std::filesystem::path& directory) { return ThisEngine<EngineNode>(directory); }

}  // namespace compare
