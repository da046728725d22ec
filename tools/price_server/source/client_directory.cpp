#include "client_directory.h"

#include <utility>

#include "lbm/errors.h"
#include "log_statement.h"
#include "zq/logging/logger.h"

namespace price_server {

ClientDirectory::ClientDirectory(lbm::Context& ctx, SourceWatch& sources, TaskLoop& loop, OnAnswer onAnswer)
    : m_ctx(ctx), m_loop(loop), m_onAnswer(std::move(onAnswer)) {
  sources.SetHandler([this](const std::string& topic) { NoteSource(topic); });
}

void ClientDirectory::NoteSource(const std::string& topic) {
  const auto client = ps_ns::TopicNames::ParseClientCommandResponseTopic(topic);
  if (!client || m_receivers.contains(topic)) {
    return;
  }
  if (m_receivers.size() >= kMaxClients) {
    ZQLOG(ZQLOG_WARNING, kServerStatement, "Too many clients, no answers will be received on topic=\"" << topic << '"');
    return;
  }
  try {
    m_receivers[topic] = std::make_unique<lbm::Receiver>(
        m_ctx, lbm::ReceiverTopic(m_ctx, topic, lbm::ReceiverTopicAttributes()),
        [this, client = *client](const lbm::Message& message) { Receive(client, message); });
  } catch (const lbm::LbmError& error) {
    ZQLOG(ZQLOG_ERROR, kServerStatement, "No answers will be received on topic=\"" << topic << "\": " << error.what());
  }
}

void ClientDirectory::Receive(const ps_ns::ClientCommandResponseTopic& client, const lbm::Message& message) {
  if (message.Type() != LBM_MSG_DATA) {
    return;
  }
  const auto answer = feed::DecodeCommandAnswer({message.Data(), message.Length()});
  if (!answer || !m_loop.Post([this, client, answer = *answer] { m_onAnswer(client, answer); })) {
    ZQLOG(ZQLOG_WARNING, kServerStatement, "Dropped an answer to a command: " << message.ToString());
  }
}

}  // namespace price_server
