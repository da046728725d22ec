// The manager on the embedded engine, with a server's context beside it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
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

const ServerInstance kInstance{7, 1, 2, 0, "CME"};
constexpr const char* kHostname = "trader-7.example.com";
constexpr const char* kClientID = "alice";

// The data messages that receivers were given, each as topic=data.
class Inbox {
 public:
  lbm::Receiver::Callback Callback() {
    return [this](const lbm::Message& message) {
      if (message.Type() != LBM_MSG_DATA) {
        return;
      }
      const std::lock_guard lock(m_mutex);
      m_messages.insert(message.TopicName() + std::string("=") + std::string(message.Data(), message.Length()));
      m_changed.notify_all();
    };
  }

  bool WaitFor(const std::string& message, std::chrono::milliseconds timeout) {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, timeout, [&] { return m_messages.count(message) > 0; });
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::set<std::string> m_messages;
};

// Sends until the message is there: a source does not know when the receivers have found it.
testing::AssertionResult Reaches(lbm::Source& source, const std::string& text, Inbox& inbox) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  const std::string message = source.GetTopic() + '=' + text;
  do {
    source.Send(text.data(), text.size(), LBM_SRC_FLUSH);
    if (inbox.WaitFor(message, std::chrono::milliseconds(10))) {
      return testing::AssertionSuccess();
    }
  } while (std::chrono::steady_clock::now() < deadline);
  return testing::AssertionFailure() << "waited in vain for " << message;
}

class ManagerOnTheEngine : public testing::Test {
 protected:
  ManagerOnTheEngine() { log_capture::Clear(); }

  void EndManager() {
    m_manager->Shutdown();
    m_manager.reset();
  }

  ~ManagerOnTheEngine() override {
    if (m_manager) {
      EndManager();
    }
  }

  std::unique_ptr<lbm::Source> MakeServerSource(const std::string& topic) {
    return std::make_unique<lbm::Source>(m_server, lbm::SourceTopic(m_server, topic, {}), lbm::Source::Callback());
  }

  test_support::PrivateDomain m_domain;
  lbm::Context m_server{lbm::ContextAttributes()};
  std::unique_ptr<LbmClientResourceMgr> m_manager = std::make_unique<LbmClientResourceMgr>(
      Config::Parse(R"(<PSConfig><Logging lbmNotifications="1"/><General/></PSConfig>)"), "a_client", false, -1, 1000,
      std::function<bool()>(), 0);
};

TEST_F(ManagerOnTheEngine, LogsAServersComingAndGoingOnce) {
  Inbox inbox;
  ReceiverPtr first = m_manager->CreateServerStatusReceiver(kInstance, inbox.Callback());
  ReceiverPtr second = m_manager->CreateServerStatusReceiver(kInstance, {});
  auto status = MakeServerSource(TopicNames::CreateServerStatusTopic(kInstance));
  EXPECT_TRUE(log_capture::WaitForText("receiver_src_notify_create src="));
  EXPECT_TRUE(Reaches(*status, "up", inbox));
  EXPECT_THAT(log_capture::Find("receiver_src_notify_delete"), SizeIs(0));
  status.reset();
  EXPECT_TRUE(log_capture::WaitForText("receiver_src_notify_delete src="));

  first.reset();
  second.reset();
  EndManager();
  EXPECT_THAT(log_capture::Find("receiver_src_notify_create"), SizeIs(1));
  EXPECT_THAT(log_capture::Find("receiver_src_notify_delete"), SizeIs(1));
}

TEST_F(ManagerOnTheEngine, CarriesCommandsToTheClientAndItsAnswersBack) {
  Inbox commands;
  Inbox answers;
  m_manager->CreateCommandSourceAndReceivers(commands.Callback(), kHostname, kClientID);
  const std::string answerTopic = TopicNames::CreateClientCommandResponseTopic(kHostname, kClientID);
  const lbm::Receiver operations(m_server, lbm::ReceiverTopic(m_server, answerTopic, {}), answers.Callback());

  const auto toHost = MakeServerSource(TopicNames::CreateClientHostCommandTopic(kHostname));
  const auto toClient = MakeServerSource(TopicNames::CreateClientIDCommandTopic(kClientID));
  EXPECT_TRUE(Reaches(*toHost, "to all", commands));
  EXPECT_TRUE(Reaches(*toClient, "to one", commands));
  EXPECT_TRUE(Reaches(*m_manager->GetCommandResponseSource(), "done", answers));
  EndManager();  // before what the callbacks use
}

}  // namespace
}  // namespace ps_ns
