#include "manager_test.h"

namespace ps_ns {
namespace {

using lbm_scripted::Failure;
using testing::ElementsAre;
using testing::IsEmpty;
using zq::logging::ZQLOG_ERROR;
using zq::logging::ZQLOG_INFO;

const ServerInstance kInstance{7, 1, 2, 0, "CME"};

struct Kind {
  const char* name;
  std::function<ReceiverPtr(LbmClientResourceMgr&, lbm::Receiver::Callback, std::string&)> create;
  std::string topic;
  std::string logPrefix;
};

void PrintTo(const Kind& kind, std::ostream* out) { *out << kind.name; }

const std::vector<Kind> kKinds{
    {"Response",
     [](auto& manager, auto callback, auto& topic) { return manager.CreateClientReceiver(kInstance, callback, topic); },
     TopicNames::CreateServerResponseTopic(kInstance), "Created ResponseReceiver on topic="},
    {"Segment",
     [](auto& manager, auto callback, auto& topic) {
       return manager.CreateClientDataReceiver(kInstance, 65535, callback, topic);
     },
     TopicNames::CreateSegmentTopic(kInstance, 65535), "Created SegmentReceiver on topic="},
    {"ProductInfo",
     [](auto& manager, auto callback, auto& topic) {
       return manager.CreateClientProductInfoReceiver(kInstance, callback, topic);
     },
     TopicNames::CreateProductResponseTopic(kInstance), "Created ProductReceiver on topic="},
    {"RFQ",
     [](auto& manager, auto callback, auto& topic) {
       return manager.CreateClientRFQ_Receiver(kInstance, callback, topic);
     },
     TopicNames::CreateRFQ_BroadcastTopic(kInstance), "Created RFQ_Receiver on topic="},
    {"News",
     [](auto& manager, auto callback, auto& topic) {
       return manager.CreateClientNewsReceiver(kInstance, callback, topic);
     },
     TopicNames::CreateNewsBroadcastTopic(kInstance), "Created NewsReceiver on topic="},
};

using Endpoints = ManagerTest;

class ReceiverEndpoints : public ManagerTest, public testing::WithParamInterface<Kind> {};

INSTANTIATE_TEST_SUITE_P(, ReceiverEndpoints, testing::ValuesIn(kKinds),
                         [](const auto& tested) { return tested.param.name; });

TEST_P(ReceiverEndpoints, ListenOnTheTopicOfTheInstance) {
  Start();
  log_capture::Clear();
  const std::size_t before = OwnCalls().size();
  std::string received;
  const auto callback = [&received](const lbm::Message& message) { received.assign(message.Data(), message.Length()); };
  std::string topicName = "overwritten";
  const ReceiverPtr receiver = GetParam().create(*m_manager, callback, topicName);
  ASSERT_TRUE(receiver);
  EXPECT_EQ(receiver.use_count(), 1);
  EXPECT_EQ(topicName, GetParam().topic);
  EXPECT_THAT(ManagerStatements(),
              ElementsAre(Statement{ZQLOG_INFO, 13, GetParam().logPrefix + '"' + GetParam().topic + '"'}));

  const auto calls = OwnCalls(before);
  ASSERT_THAT(Functions(calls), ElementsAre("lbm_rcv_topic_attr_create", "lbm_rcv_topic_lookup", "lbm_rcv_create",
                                            "lbm_rcv_topic_attr_delete"));
  EXPECT_EQ(calls[1].Text("name"), GetParam().topic);
  EXPECT_TRUE(calls[2].IsNull("evq"));

  lbm_scripted::Message message;
  message.data = "42";
  lbm_scripted::Deliver(lbm_scripted::FindReceiver(GetParam().topic), message);
  EXPECT_EQ(received, "42");
}

TEST_P(ReceiverEndpoints, FailWithTheTopicNamedAndNothingLeft) {
  Start();
  const std::vector<std::string> alive = lbm_scripted::LiveHandles();
  const std::vector<std::pair<const char*, const char*>> failures{
      {"lbm_rcv_topic_lookup", "Failed to lookup LBM topic: no"},
      {"lbm_rcv_create", "Failed to create LBM receiver: no"}};
  for (const auto& [function, error] : failures) {
    log_capture::Clear();
    lbm_scripted::Script(function, Failure(LBM_EINVAL, "no"));
    std::string topicName;
    try {
      GetParam().create(*m_manager, {}, topicName);
      ADD_FAILURE() << "no error although " << function << " failed";
    } catch (const lbm::LbmError& caught) {
      EXPECT_STREQ(caught.what(), error);
    }
    EXPECT_EQ(topicName, GetParam().topic);
    EXPECT_EQ(lbm_scripted::LiveHandles(), alive);
    EXPECT_THAT(ManagerStatements(), IsEmpty());
  }

  lbm_scripted::Script("lbm_rcv_topic_attr_create", Failure(LBM_ENOMEM, "no"));
  std::string untouched = "untouched";
  EXPECT_THROW(GetParam().create(*m_manager, {}, untouched), lbm::LbmError);
  EXPECT_EQ(untouched, "untouched");
}

TEST_F(Endpoints, ARequestSourceSendsOnTheTopicOfTheInstance) {
  Start();
  log_capture::Clear();
  const std::size_t before = OwnCalls().size();
  const std::string topic = TopicNames::CreateClientRequestTopic(kInstance);
  const SourcePtr source = m_manager->CreateClientSource(kInstance);
  ASSERT_TRUE(source);
  EXPECT_EQ(source.use_count(), 1);
  EXPECT_THAT(log_capture::Texts(),
              ElementsAre("Creating source on topic=" + topic, "Created RequestSource on topic=\"" + topic + '"'));

  const auto calls = OwnCalls(before);
  ASSERT_THAT(Functions(calls), ElementsAre("lbm_src_topic_attr_create", "lbm_src_topic_alloc", "lbm_src_create",
                                            "lbm_src_topic_attr_delete"));
  EXPECT_EQ(calls[1].Text("name"), topic);
  EXPECT_TRUE(calls[2].IsNull("proc"));
  EXPECT_TRUE(calls[2].IsNull("evq"));

  lbm_scripted::Script("lbm_src_topic_alloc", Failure(LBM_EINVAL, "no"));
  EXPECT_THROW(m_manager->CreateClientSource(kInstance), lbm::LbmError);
  lbm_scripted::Script("lbm_src_create", Failure(LBM_EINVAL, "no"));
  EXPECT_THROW(m_manager->CreateClientSource(kInstance), lbm::LbmError);
  EXPECT_THAT(lbm_scripted::LiveHandles("src_topic_attr"), IsEmpty());
}

TEST_F(Endpoints, AreReturnedAlthoughTheirAttributesCannotBeDeleted) {
  Start();
  lbm_scripted::Script("lbm_rcv_topic_attr_delete", Failure(LBM_EINVAL, "no"));
  std::string topicName;
  EXPECT_TRUE(m_manager->CreateClientReceiver(kInstance, {}, topicName));
  EXPECT_TRUE(log_capture::WaitForText("Failed to delete LBM receiver topic attributes: no"));
  lbm_scripted::Script("lbm_src_topic_attr_delete", Failure(LBM_EINVAL, "no"));
  EXPECT_TRUE(m_manager->CreateClientSource(kInstance));
  EXPECT_TRUE(log_capture::WaitForText("Failed to delete LBM source topic attributes: no"));
  m_manager->Shutdown();
  m_manager.reset();
  lbm_scripted::Reset();  // the two attribute objects are lost, as the test asked
}

TEST_F(Endpoints, AreNotRecordedByTheirCreation) {
  Start();
  std::string topicName;
  const SourcePtr source = m_manager->CreateClientSource(kInstance);
  const ReceiverPtr response = m_manager->CreateClientReceiver(kInstance, {}, topicName);
  const ReceiverPtr data = m_manager->CreateClientDataReceiver(kInstance, 0, {}, topicName);
  EXPECT_FALSE(m_manager->GetRequestSource(kInstance));
  EXPECT_FALSE(m_manager->GetResponseReceiver(kInstance));
  EXPECT_FALSE(m_manager->GetDataReceiver(kInstance, 0));
}

TEST_F(Endpoints, ClosedGateLogsNothing) {
  Start();
  log_capture::Clear();
  log_capture::SetMinLevel(zq::logging::ZQLOG_INFO_LOCAL);
  std::string topicName;
  m_manager->CreateClientReceiver(kInstance, {}, topicName);
  m_manager->CreateClientSource(kInstance);
  EXPECT_THAT(log_capture::Texts(), IsEmpty());
}

}  // namespace
}  // namespace ps_ns
