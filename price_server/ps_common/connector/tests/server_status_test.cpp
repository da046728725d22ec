#include <atomic>
#include <chrono>
#include <future>

#include "manager_test.h"

namespace ps_ns {
namespace {

using lbm_scripted::Failure;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using zq::logging::ZQLOG_INFO;
using zq::logging::ZQLOG_WARNING;

const ServerInstance kInstance{7, 1, 2, 0, "CME"};
const std::string kTopic = TopicNames::CreateServerStatusTopic(kInstance);
const Statement kCreated{ZQLOG_INFO, 13, "Created ServerStatusReceiver on topic=\"" + kTopic + '"'};
const char* const kNotificationsOn = R"(<Logging lbmNotifications="1"/><General/>)";

using ServerStatus = ManagerTest;

TEST_F(ServerStatus, ReceiversOfOneTopicShareItsLookUp) {
  Start({.config = "<Logging/><General/>"});
  log_capture::Clear();
  const std::size_t before = OwnCalls().size();
  std::string received;
  const ReceiverPtr first = m_manager->CreateServerStatusReceiver(kInstance, {});
  const ReceiverPtr second = m_manager->CreateServerStatusReceiver(
      {7, 1, 2, 0, "another name for display"},
      [&received](const lbm::Message& message) { received.assign(message.Data(), message.Length()); });
  ASSERT_TRUE(first);
  ASSERT_TRUE(second);
  EXPECT_NE(first, second);
  EXPECT_EQ(second.use_count(), 1);
  EXPECT_THAT(ManagerStatements(), ElementsAre(kCreated, kCreated));

  const auto calls = OwnCalls(before);
  ASSERT_THAT(Functions(calls), ElementsAre("lbm_rcv_topic_attr_create", "lbm_rcv_topic_lookup", "lbm_rcv_create",
                                            "lbm_rcv_topic_attr_delete", "lbm_rcv_topic_attr_create", "lbm_rcv_create",
                                            "lbm_rcv_topic_attr_delete"));
  EXPECT_EQ(calls[1].Text("name"), kTopic);
  EXPECT_EQ(calls[2].Pointer("topic"), calls[5].Pointer("topic"));
  EXPECT_TRUE(calls[5].IsNull("evq"));

  lbm_scripted::Message message;
  message.data = "up";
  lbm_scripted::Deliver(*second, message);
  EXPECT_EQ(received, "up");

  m_manager->CreateServerStatusReceiver({7, 1, 3, 0, "CME"}, {});
  EXPECT_THAT(lbm_scripted::CallsTo("lbm_rcv_topic_lookup"), SizeIs(2));
}

TEST_F(ServerStatus, SourcesThatComeAndGoAreLoggedWhenTheConfigurationAsksForIt) {
  Start({.config = kNotificationsOn});
  const std::size_t before = OwnCalls().size();
  const ReceiverPtr receiver = m_manager->CreateServerStatusReceiver(kInstance, {});
  const auto calls = OwnCalls(before);
  ASSERT_THAT(Functions(calls), ElementsAre("lbm_rcv_topic_attr_create", "lbm_rcv_topic_attr_setopt",
                                            "lbm_rcv_topic_lookup", "lbm_rcv_create", "lbm_rcv_topic_attr_delete"));
  EXPECT_EQ(calls[1].Text("optname"), "source_notification_function");
  EXPECT_THAT(calls[1].Text("optval"), SizeIs(24));
  const auto notification = calls[1].Value<lbm_rcv_src_notification_func_t>("optval");
  EXPECT_EQ(notification.create_func, &receiver_src_notify_create);
  EXPECT_EQ(notification.delete_func, &receiver_src_notify_delete);

  log_capture::Clear();
  EXPECT_EQ(lbm_scripted::NotifySourceCreated(*receiver, "TCP:1"), nullptr);
  EXPECT_EQ(lbm_scripted::NotifySourceDeleted(*receiver, "TCP:1", nullptr), 0);
  EXPECT_THAT(ManagerStatements(), ElementsAre(Statement{ZQLOG_INFO, 9999, "receiver_src_notify_create src=TCP:1"},
                                               Statement{ZQLOG_INFO, 9999, "receiver_src_notify_delete src=TCP:1"}));

  log_capture::Clear();
  log_capture::SetMinLevel(ZQLOG_WARNING);
  EXPECT_EQ(lbm_scripted::NotifySourceCreated(*receiver, "TCP:1"), nullptr);
  EXPECT_EQ(lbm_scripted::NotifySourceDeleted(*receiver, "TCP:1", nullptr), 0);
  EXPECT_THAT(log_capture::Texts(), IsEmpty());
}

TEST_F(ServerStatus, IsReceivedAlthoughItsSourcesCannotBeWatched) {
  Start({.config = kNotificationsOn});
  log_capture::Clear();
  lbm_scripted::Script("lbm_rcv_topic_attr_setopt", Failure(LBM_EINVAL, "unknown option"));
  EXPECT_TRUE(m_manager->CreateServerStatusReceiver(kInstance, {}));
  EXPECT_THAT(ManagerStatements(),
              ElementsAre(Statement{ZQLOG_WARNING, 9999, "register source_notification_function failed"}, kCreated));
}

TEST_F(ServerStatus, AFailureLeavesTheManagerReadyForTheNextCall) {
  Start();
  const auto expectFailure = [this](const char* function, const char* text) {
    log_capture::Clear();
    lbm_scripted::Script(function, Failure(LBM_EINVAL, "no"));
    try {
      m_manager->CreateServerStatusReceiver(kInstance, {});
      ADD_FAILURE() << "no error although " << function << " failed";
    } catch (const lbm::LbmError& error) {
      EXPECT_STREQ(error.what(), text);
    }
    EXPECT_THAT(ManagerStatements(), IsEmpty());
    EXPECT_THAT(lbm_scripted::LiveHandles("rcv_topic_attr"), IsEmpty());
    EXPECT_THAT(lbm_scripted::LiveHandles("rcv"), IsEmpty());
  };
  expectFailure("lbm_rcv_topic_attr_create", "Failed to create LBM receiver topic attributes: no");
  expectFailure("lbm_rcv_topic_lookup", "Failed to lookup LBM topic: no");
  expectFailure("lbm_rcv_create", "Failed to create LBM receiver: no");
  // What was looked up for the receiver that failed is kept; the look-up that failed is not.
  EXPECT_TRUE(m_manager->CreateServerStatusReceiver(kInstance, {}));
  EXPECT_THAT(lbm_scripted::CallsTo("lbm_rcv_topic_lookup"), SizeIs(2));
}

TEST_F(ServerStatus, AThreadWaitsForTheTopicThatAnotherLooksUp) {
  Start();
  std::atomic_flag first = ATOMIC_FLAG_INIT;
  std::future<ReceiverPtr> other;
  lbm_scripted::OnCall("lbm_rcv_topic_lookup", [&](const lbm_scripted::Call&) {
    if (first.test_and_set()) {
      return;
    }
    other = std::async(std::launch::async, [&] { return m_manager->CreateServerStatusReceiver(kInstance, {}); });
    EXPECT_TRUE(lbm_scripted::WaitForCalls("lbm_rcv_topic_attr_create", 2));
    EXPECT_FALSE(lbm_scripted::WaitForCalls("lbm_rcv_topic_lookup", 2, std::chrono::milliseconds(50)));
  });
  EXPECT_TRUE(m_manager->CreateServerStatusReceiver(kInstance, {}));
  EXPECT_TRUE(other.get());
  EXPECT_THAT(lbm_scripted::CallsTo("lbm_rcv_topic_lookup"), SizeIs(1));
}

}  // namespace
}  // namespace ps_ns
