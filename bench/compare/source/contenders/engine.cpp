// This engine as applications use it: lbm::Source to lbm::Receiver and its std::function.
#include <cstdlib>
#include <lbm/lbm_cpp>

#include "this_engine.h"
#include "zq/logging/log_level.h"

namespace compare {

namespace {

lbm::ContextAttributes ContextAttributes(const NodeSetup& setup) {
  lbm::ContextAttributes attributes;
  attributes.SetString("operational_mode", setup.subscribes.empty() ? "embedded" : "sequential");
  return attributes;
}

class EngineNode : public Node {
 public:
  explicit EngineNode(const NodeSetup& setup) : m_context(ContextAttributes(setup)) {
    lbm::SourceTopicAttributes lossless;
    lossless.SetString("transport_pacing", "receiver");
    for (const std::string& topic : setup.publishes) {
      m_sources.push_back(
          std::make_unique<lbm::Source>(m_context, lbm::SourceTopic(m_context, topic, lossless), nullptr));
    }
    for (const std::string& topic : setup.subscribes) {
      m_receivers.push_back(std::make_unique<lbm::Receiver>(m_context, lbm::ReceiverTopic(m_context, topic, {}),
                                                            [sink = setup.sink](const lbm::Message& message) {
                                                              if (message.Type() == LBM_MSG_DATA) {
                                                                sink->Take(message.Data(), message.Length());
                                                              }
                                                            }));
    }
  }

  void Send(std::size_t topic, const char* data, std::size_t length) override {
    m_sources[topic]->Send(data, length, 0);
  }

  void Poll(int timeoutMs) override { m_context.Poll(static_cast<lbm_ulong_t>(timeoutMs)); }

 private:
  lbm::Context m_context;
  std::vector<std::unique_ptr<lbm::Source>> m_sources;
  std::vector<std::unique_ptr<lbm::Receiver>> m_receivers;
};

}  // namespace

Contender MakeContender(const std::filesystem::path& directory) {
  zq::logging::g_minLogLevel = zq::logging::ZQLOG_WARNING;
  ::setenv("DISABLE_LBM_TRIAGE_HANDLER", "1", 1);
  return ThisEngine<EngineNode>(directory);
}

}  // namespace compare
