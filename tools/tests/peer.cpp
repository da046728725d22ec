#include "peer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>

#include "feed/command.h"
#include "lbm/attributes.h"
#include "lbm/topics.h"
#include "process.h"
#include "ps_common/connector/topic_names.h"
#include "zq/logging/default_backend.h"

namespace tools_test {
namespace {

using Clock = std::chrono::steady_clock;
using ps_ns::TopicNames;

}  // namespace

Peer::Peer(const std::filesystem::path& runtimeDirectory) {
  ::setenv("LBM_RUNTIME_DIR", runtimeDirectory.c_str(), 1);
  ::setenv("DISABLE_LBM_TRIAGE_HANDLER", "in tests", 1);
  zq::logging::SetMinLevel(zq::logging::ZQLOG_WARNING);
  lbm::ContextAttributes attributes;
  attributes.SetString("operational_mode", "sequential");
  m_context = std::make_unique<lbm::Context>(attributes);
}

bool Peer::WaitUntil(const std::function<bool()>& done) {
  const auto end = Clock::now() + kDeadline;
  while (!done()) {
    if (Clock::now() > end) {
      return false;
    }
    m_context->Poll(10);
  }
  return true;
}

lbm::Source* Peer::SourceOn(const std::string& topicName) {
  auto& outlet = m_outlets[topicName];
  if (!outlet.source) {
    const lbm::SourceTopic topic(*m_context, topicName, lbm::SourceTopicAttributes());
    outlet.source = std::make_unique<lbm::Source>(*m_context, topic, [&outlet](int event, void*) {
      if (event == LBM_SRC_EVENT_CONNECT) {
        outlet.hasSubscriber = true;
      }
    });
  }
  return WaitUntil([&] { return outlet.hasSubscriber; }) ? outlet.source.get() : nullptr;
}

bool Peer::Send(const std::string& topicName, const std::string& bytes) {
  auto* source = SourceOn(topicName);
  if (source != nullptr) {
    source->Send(bytes.data(), bytes.size(), LBM_SRC_FLUSH);
  }
  return source != nullptr;
}

bool Peer::Request(const std::string& topicName, const std::string& bytes,
                   const std::function<bool(std::string_view)>& take) {
  auto* source = SourceOn(topicName);
  if (source == nullptr) {
    return false;
  }
  bool isDone = false;
  const auto request = source->SendRequest(bytes.data(), bytes.size(), LBM_SRC_FLUSH, [&](const lbm::Message& message) {
    if (!isDone) {
      isDone = take({message.Data(), message.Length()});
    }
  });
  return WaitUntil([&] { return isDone; });
}

void Peer::Receive(const std::string& topicName, lbm::MessageCallback callback) {
  const lbm::ReceiverTopic topic(*m_context, topicName, lbm::ReceiverTopicAttributes());
  m_receivers.push_back(std::make_unique<lbm::Receiver>(*m_context, topic, std::move(callback)));
}

Operator::Operator(const std::filesystem::path& runtimeDirectory, const std::string& host, const std::string& clientID)
    : Peer(runtimeDirectory),
      m_hostTopic(TopicNames::CreateClientHostCommandTopic(host)),
      m_idTopic(TopicNames::CreateClientIDCommandTopic(clientID)) {}

feed::CommandAnswer Operator::Ask(const std::string& topicName, const std::string& name) {
  feed::Command command;
  command.id = ++m_lastID;
  command.name = name;
  auto answer = AskRaw(topicName, feed::Encode(command));
  EXPECT_EQ(answer.id, command.id) << name;
  return answer;
}

feed::CommandAnswer Operator::AskRaw(const std::string& topicName, const std::string& bytes) {
  feed::CommandAnswer answer;
  Peer::Request(topicName, bytes, [&](std::string_view response) {
    answer = feed::DecodeCommandAnswer(response).value_or(answer);
    return true;
  });
  return answer;
}

}  // namespace tools_test
