// The endpoints that the manager makes and hands out, and those that it looks up.
#include <unistd.h>

#include <atomic>
#include <future>
#include <tuple>

#include "manager_test.h"
#include "test_support/thread_state.h"

namespace ps_ns {

class RecordedEndpoints : public ManagerTest {
 protected:
  auto& Sources() { return m_manager->m_sourcesByServerInstance; }
  auto& Receivers() { return m_manager->m_receiversByServerInstance; }
  auto& DataReceivers() { return m_manager->m_dataReceiversByServerInstance; }
};

namespace {

const ServerInstance kInstance{7, 1, 2, 0, "CME"};
const ServerInstance kRenamed{7, 1, 2, 0, "another name for display"};
constexpr const char* kNotificationsOn = R"(<Logging lbmNotifications="1"/><General/>)";

std::string Created(const char* what, const std::string& topic) {
  return std::string("10 13 Created ") + what + " on topic=\"" + topic + '"';
}

// A callback that keeps the last message's data.
lbm::Receiver::Callback KeepIn(std::string& received) {
  return [&received](const lbm::Message& message) { received.assign(message.Data(), message.Length()); };
}

using Endpoints = ManagerTest;

TEST_F(Endpoints, ReceiversListenOnTheirTopicOfTheInstance) {
  LbmClientResourceMgr& manager = Start();
  log_capture::Clear();
  const std::pair<const char*, std::string> kinds[] = {
      {"ResponseReceiver", TopicNames::CreateServerResponseTopic(kInstance)},
      {"SegmentReceiver", TopicNames::CreateSegmentTopic(kInstance, 65535)},
      {"ProductReceiver", TopicNames::CreateProductResponseTopic(kInstance)},
      {"RFQ_Receiver", TopicNames::CreateRFQ_BroadcastTopic(kInstance)},
      {"NewsReceiver", TopicNames::CreateNewsBroadcastTopic(kInstance)}};
  std::string received;
  std::vector<std::string> names(std::size(kinds));
  const auto keep = KeepIn(received);
  const ReceiverPtr receivers[] = {manager.CreateClientReceiver(kInstance, keep, names[0]),
                                   manager.CreateClientDataReceiver(kInstance, 65535, keep, names[1]),
                                   manager.CreateClientProductInfoReceiver(kInstance, keep, names[2]),
                                   manager.CreateClientRFQ_Receiver(kInstance, keep, names[3]),
                                   manager.CreateClientNewsReceiver(kInstance, keep, names[4])};
  for (std::size_t i = 0; i < std::size(receivers); ++i) {
    const auto& [what, topic] = kinds[i];
    EXPECT_EQ(names[i], topic);
    EXPECT_EQ(Lines().at(i), Created(what, topic));
    EXPECT_TRUE(lbm_scripted::CallsTo("lbm_rcv_create").at(i).IsNull("evq"));
    lbm_scripted::Deliver(lbm_scripted::FindReceiver(topic), {topic});
    EXPECT_EQ(received, topic);
  }
  EXPECT_FALSE(manager.GetResponseReceiver(kInstance));
  EXPECT_FALSE(manager.GetDataReceiver(kInstance, 65535));
}

TEST_F(Endpoints, ARequestSourceSendsOnTheTopicOfTheInstance) {
  Start();
  log_capture::Clear();
  const SourcePtr source = m_manager->CreateClientSource(kInstance);
  const std::string topic = TopicNames::CreateClientRequestTopic(kInstance);
  EXPECT_THAT(Lines(), ElementsAre(Created("RequestSource", topic)));
  const auto created = lbm_scripted::CallsTo("lbm_src_create").at(0);
  EXPECT_TRUE(created.IsNull("proc") && created.IsNull("evq"));
  EXPECT_NE(lbm_scripted::FindSource(topic), nullptr);
  EXPECT_EQ(source.use_count(), 1);
  EXPECT_FALSE(m_manager->GetRequestSource(kInstance));
}

TEST_F(Endpoints, FailWithTheTopicNamedAndNothingLeft) {
  Start();
  const std::vector<std::string> alive = LiveHandles();
  log_capture::Clear();
  std::string topicName = "not named yet";
  const auto create = [&] { m_manager->CreateClientReceiver(kInstance, {}, topicName); };
  EXPECT_EQ(FailureOf("lbm_rcv_topic_attr_create", create), "Failed to create LBM receiver topic attributes: no");
  EXPECT_EQ(topicName, "not named yet");
  EXPECT_EQ(FailureOf("lbm_rcv_topic_lookup", create), "Failed to lookup LBM topic: no");
  EXPECT_EQ(topicName, TopicNames::CreateServerResponseTopic(kInstance));
  EXPECT_EQ(FailureOf("lbm_rcv_create", create), "Failed to create LBM receiver: no");
  EXPECT_EQ(LiveHandles(), alive);
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(RecordedEndpoints, AreFoundByTheNumbersOfTheirInstance) {
  LbmClientResourceMgr& manager = Start();
  std::string topicName;
  Sources()[kInstance] = manager.CreateClientSource(kInstance);
  Receivers()[kInstance] = manager.CreateClientReceiver(kInstance, {}, topicName);
  for (unsigned short segment = 0; segment < 2; ++segment) {
    DataReceivers()[kInstance].push_back(manager.CreateClientDataReceiver(kInstance, segment, {}, topicName));
  }
  EXPECT_EQ(manager.GetRequestSource(kRenamed), Sources().at(kInstance));
  EXPECT_EQ(manager.GetResponseReceiver(kRenamed), Receivers().at(kInstance));
  EXPECT_EQ(manager.GetDataReceiver(kRenamed, 0), DataReceivers().at(kInstance)[0]);
  EXPECT_EQ(manager.GetDataReceiver(kRenamed, 1), DataReceivers().at(kInstance)[1]);
  EXPECT_FALSE(manager.GetDataReceiver(kRenamed, 2));
  const ServerInstance other{7, 1, 2, 1, "CME"};
  EXPECT_FALSE(manager.GetRequestSource(other) || manager.GetResponseReceiver(other) ||
               manager.GetDataReceiver(other, 0));
}

// ---- Server status

const std::string kStatusTopic = TopicNames::CreateServerStatusTopic(kInstance);

using ServerStatus = ManagerTest;

TEST_F(ServerStatus, ReceiversOfOneTopicShareItsLookUp) {
  Start({.config = "<Logging/><General/>"});
  log_capture::Clear();
  std::string received;
  ReceiverPtr first;
  ReceiverPtr second;
  const auto calls = CallsOf([&] {
    first = m_manager->CreateServerStatusReceiver(kInstance, {});
    second = m_manager->CreateServerStatusReceiver(kRenamed, KeepIn(received));
  });
  EXPECT_NE(first, second);
  const std::string created = Created("ServerStatusReceiver", kStatusTopic);
  EXPECT_THAT(Lines(), ElementsAre(created, created));
  ASSERT_THAT(Functions(calls), ElementsAre("lbm_rcv_topic_attr_create", "lbm_rcv_topic_lookup", "lbm_rcv_create",
                                            "lbm_rcv_topic_attr_delete", "lbm_rcv_topic_attr_create", "lbm_rcv_create",
                                            "lbm_rcv_topic_attr_delete"));
  EXPECT_EQ(calls[1].Text("name"), kStatusTopic);
  EXPECT_EQ(calls[2].Pointer("topic"), calls[5].Pointer("topic"));
  EXPECT_TRUE(calls[5].IsNull("evq"));
  lbm_scripted::Deliver(*second, {"up"});
  EXPECT_EQ(received, "up");
}

TEST_F(ServerStatus, SourcesThatComeAndGoAreLoggedWhenTheConfigurationAsksForIt) {
  Start({.config = kNotificationsOn});
  const ReceiverPtr receiver = m_manager->CreateServerStatusReceiver(kInstance, {});
  const auto set = lbm_scripted::CallsTo("lbm_rcv_topic_attr_setopt").at(0);
  EXPECT_EQ(set.Text("optname"), "source_notification_function");
  EXPECT_THAT(set.Text("optval"), SizeIs(24));
  log_capture::Clear();
  EXPECT_EQ(lbm_scripted::NotifySourceCreated(*receiver, "TCP:1"), nullptr);
  EXPECT_EQ(lbm_scripted::NotifySourceDeleted(*receiver, "TCP:1", nullptr), 0);
  EXPECT_THAT(Lines(), ElementsAre("10 9999 receiver_src_notify_create src=TCP:1",
                                   "10 9999 receiver_src_notify_delete src=TCP:1"));
}

TEST_F(ServerStatus, IsReceivedAlthoughItsSourcesCannotBeWatched) {
  Start({.config = kNotificationsOn});
  log_capture::Clear();
  Script("lbm_rcv_topic_attr_setopt", Failure(LBM_EINVAL, "unknown option"));
  EXPECT_TRUE(m_manager->CreateServerStatusReceiver(kInstance, {}));
  EXPECT_THAT(
      Lines(),
      ElementsAre(
          "20 9999 register source_notification_function failed",
          "0 9999 source_notification_function reason=Failed to set LBM receiver topic attribute: unknown option",
          Created("ServerStatusReceiver", kStatusTopic)));
}

TEST_F(ServerStatus, AFailureLeavesTheManagerReadyForTheNextCall) {
  Start();
  const auto create = [&] { return m_manager->CreateServerStatusReceiver(kInstance, {}); };
  EXPECT_EQ(FailureOf("lbm_rcv_topic_lookup", create), "Failed to lookup LBM topic: no");
  EXPECT_EQ(FailureOf("lbm_rcv_create", create), "Failed to create LBM receiver: no");
  EXPECT_THAT(LiveHandles("rcv_topic_attr"), IsEmpty());
  // What was looked up for the receiver that failed is kept; the look-up that failed is not.
  EXPECT_TRUE(create());
  EXPECT_THAT(lbm_scripted::CallsTo("lbm_rcv_topic_lookup"), SizeIs(2));
}

TEST_F(ServerStatus, AThreadWaitsForTheTopicThatAnotherLooksUp) {
  Start();
  std::atomic_flag first = ATOMIC_FLAG_INIT;
  std::atomic<pid_t> thread = 0;
  std::future<ReceiverPtr> other;
  lbm_scripted::OnCall("lbm_rcv_topic_lookup", [&](const lbm_scripted::Call&) {
    if (first.test_and_set()) {
      return;
    }
    other = std::async(std::launch::async, [&] {
      thread = ::gettid();
      return m_manager->CreateServerStatusReceiver(kInstance, {});
    });
    EXPECT_TRUE(lbm_scripted::WaitForCalls("lbm_rcv_topic_attr_create", 2));
    while (lbm_scripted::CallsTo("lbm_rcv_topic_lookup").size() == 1 && !test_support::IsAsleep(thread)) {
    }
  });
  EXPECT_TRUE(m_manager->CreateServerStatusReceiver(kInstance, {}));
  EXPECT_TRUE(other.get());
  EXPECT_THAT(lbm_scripted::CallsTo("lbm_rcv_topic_lookup"), SizeIs(1));
}

// ---- The command channel

class CommandChannel : public ManagerTest {
 protected:
  // The channel number n, whose topics are the following.
  void Create(int n, const lbm::Receiver::Callback& callback = {}) {
    m_manager->CreateCommandSourceAndReceivers(callback, "host." + std::to_string(n), "id" + std::to_string(n));
  }
  static std::string Host(int n) { return "client_command.host.host%2E" + std::to_string(n); }
  static std::string Id(int n) { return "client_command.id.id" + std::to_string(n); }
  static std::string Answers(int n) {
    return "client_command.response.host%2E" + std::to_string(n) + ".id" + std::to_string(n);
  }
};

TEST_F(CommandChannel, ListensForTheHostAndTheClientAndAnswersForBoth) {
  Start();
  EXPECT_FALSE(m_manager->GetCommandResponseSource());
  log_capture::Clear();
  std::string received;
  Create(1, KeepIn(received));
  EXPECT_THAT(Lines(),
              ElementsAre(Created("ClientHostCommandReceiver", Host(1)), Created("ClientIDCommandReceiver", Id(1)),
                          Created("ClientCommandResponseSource", Answers(1))));
  const auto receivers = lbm_scripted::CallsTo("lbm_rcv_create");
  EXPECT_TRUE(receivers.at(0).IsNull("evq") && receivers.at(1).IsNull("evq"));
  const auto source = lbm_scripted::CallsTo("lbm_src_create").at(0);
  EXPECT_TRUE(source.IsNull("proc") && source.IsNull("evq"));
  for (const std::string& topic : {Host(1), Id(1)}) {
    lbm_scripted::Deliver(lbm_scripted::FindReceiver(topic), {topic});
    EXPECT_EQ(received, topic);
  }
  EXPECT_EQ(m_manager->GetCommandResponseSource()->GetTopic(), Answers(1));
}

TEST_F(CommandChannel, IsReplacedOneByOneByASecondCall) {
  Start();
  Create(1);
  SourcePtr earlier = m_manager->GetCommandResponseSource();
  log_capture::Clear();
  Create(2);
  EXPECT_THAT(log_capture::Texts(),
              ElementsAre("Creating receiver on topic=" + Host(2), "Deleting receiver on topic=" + Host(1),
                          Created("ClientHostCommandReceiver", Host(2)).substr(6),
                          "Creating receiver on topic=" + Id(2), "Deleting receiver on topic=" + Id(1),
                          Created("ClientIDCommandReceiver", Id(2)).substr(6), "Creating source on topic=" + Answers(2),
                          Created("ClientCommandResponseSource", Answers(2)).substr(6)));
  EXPECT_NE(lbm_scripted::FindSource(Answers(1)), nullptr) << "somebody has it";
  earlier.reset();
  EXPECT_EQ(lbm_scripted::FindSource(Answers(1)), nullptr);
}

TEST_F(CommandChannel, KeepsWhatWasReplacedBeforeAFailureAndLeaksNothing) {
  for (const auto& [function, successes, host, id] :
       {std::tuple{"lbm_rcv_topic_lookup", 0, 1, 1}, {"lbm_rcv_create", 1, 2, 1}, {"lbm_src_create", 0, 2, 2}}) {
    Start();
    Create(1);
    EXPECT_THAT(FailureOf(
                    function, [&] { Create(2); }, successes),
                testing::EndsWith(": no"));
    EXPECT_NE(lbm_scripted::FindReceiver(Host(host)), nullptr) << function;
    EXPECT_NE(lbm_scripted::FindReceiver(Id(id)), nullptr) << function;
    EXPECT_EQ(m_manager->GetCommandResponseSource()->GetTopic(), Answers(1));
    EXPECT_THAT(LiveHandles(), SizeIs(5)) << "these, the context and its attributes";
    End();
  }
}

}  // namespace
}  // namespace ps_ns
