// The manager on the embedded engine, with a server's context beside it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "ps_common/config/config.h"
#include "ps_common/connector/lbm_client_resource_mgr.h"
#include "test_support/private_domain.h"
#include "zq/logging/testing/log_capture.h"

namespace ps_ns {
namespace {

namespace log_capture = zq::logging::testing::log_capture;
using testing::SizeIs;

// The data messages that receivers were given, each as topic=data.
class Inbox {
 public:
  lbm::Receiver::Callback Callback() {
    return [this](const lbm::Message& message) {
      if (message.Type() == LBM_MSG_DATA) {
        const std::lock_guard lock(m_mutex);
        m_messages.insert(message.TopicName() + std::string("=") + std::string(message.Data(), message.Length()));
        m_changed.notify_all();
      }
    };
  }

  // Sends until the message is there: a source does not know when the receivers have found it.
  testing::AssertionResult Receives(lbm::Source& source, const std::string& text) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    const std::string message = source.GetTopic() + '=' + text;
    do {
      source.Send(text.data(), text.size(), LBM_SRC_FLUSH);
      std::unique_lock lock(m_mutex);
      if (m_changed.wait_for(lock, std::chrono::milliseconds(10), [&] { return m_messages.count(message) > 0; })) {
        return testing::AssertionSuccess();
      }
    } while (std::chrono::steady_clock::now() < deadline);
    return testing::AssertionFailure() << "waited in vain for " << message;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::set<std::string> m_messages;
};

TEST(ManagerOnTheEngine, CarriesStatusAndCommandsToTheClientAndItsAnswersBack) {
  const test_support::PrivateDomain domain;
  lbm::Context server{lbm::ContextAttributes()};
  const auto makeSource = [&server](const std::string& topic) {
    return std::make_unique<lbm::Source>(server, lbm::SourceTopic(server, topic, {}), lbm::Source::Callback());
  };
  Inbox inbox;
  Inbox answers;
  LbmClientResourceMgr manager(Config::Parse(R"(<PSConfig><Logging lbmNotifications="1"/><General/></PSConfig>)"),
                               "a_client", false, -1, 1000, {}, 0);

  const ServerInstance instance{7, 1, 2, 0, "CME"};
  const ReceiverPtr first = manager.CreateServerStatusReceiver(instance, inbox.Callback());
  const ReceiverPtr second = manager.CreateServerStatusReceiver(instance, {});
  auto status = makeSource(TopicNames::CreateServerStatusTopic(instance));
  EXPECT_TRUE(inbox.Receives(*status, "up"));
  EXPECT_THAT(log_capture::Find("receiver_src_notify_delete"), SizeIs(0));
  status.reset();
  EXPECT_TRUE(log_capture::WaitForText("receiver_src_notify_delete src="));

  const std::string host = "trader-7.example.com";
  manager.CreateCommandSourceAndReceivers(inbox.Callback(), host, "alice");
  const std::string answerTopic = TopicNames::CreateClientCommandResponseTopic(host, "alice");
  const lbm::Receiver operations(server, lbm::ReceiverTopic(server, answerTopic, {}), answers.Callback());
  EXPECT_TRUE(inbox.Receives(*makeSource(TopicNames::CreateClientHostCommandTopic(host)), "to all"));
  EXPECT_TRUE(inbox.Receives(*makeSource(TopicNames::CreateClientIDCommandTopic("alice")), "to one"));
  EXPECT_TRUE(answers.Receives(*manager.GetCommandResponseSource(), "done"));

  manager.Shutdown();
  EXPECT_THAT(log_capture::Find("receiver_src_notify_create"), SizeIs(1)) << "once for both receivers";
  EXPECT_THAT(log_capture::Find("receiver_src_notify_delete"), SizeIs(1));
}

}  // namespace
}  // namespace ps_ns
