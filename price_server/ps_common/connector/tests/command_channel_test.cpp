#include <stdexcept>

#include "manager_test.h"

namespace ps_ns {
namespace {

using lbm_scripted::Failure;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using zq::logging::ZQLOG_INFO;

// The three topics of a client's channel.
struct Channel {
  Channel(const std::string& hostname, const std::string& clientID)
      : host(TopicNames::CreateClientHostCommandTopic(hostname)),
        id(TopicNames::CreateClientIDCommandTopic(clientID)),
        response(TopicNames::CreateClientCommandResponseTopic(hostname, clientID)) {}

  std::string host;
  std::string id;
  std::string response;
};

const Channel kFirst{"trader-7.example.com", "alice"};
const Channel kSecond{"trader-8.example.com", "bob"};

class CommandChannel : public ManagerTest {
 protected:
  void CreateFirst(const lbm::Receiver::Callback& callback = {}) {
    m_manager->CreateCommandSourceAndReceivers(callback, "trader-7.example.com", "alice");
  }
  void CreateSecond() { m_manager->CreateCommandSourceAndReceivers({}, "trader-8.example.com", "bob"); }

  // From here on only what comes later is seen.
  void Mark() {
    log_capture::Clear();
    m_mark = OwnCalls().size();
  }
  std::vector<lbm_scripted::Call> CallsSinceMark() const { return OwnCalls(m_mark); }

 private:
  std::size_t m_mark = 0;
};

TEST_F(CommandChannel, ListensForTheHostAndTheClientAndAnswersForBoth) {
  Start();
  EXPECT_FALSE(m_manager->GetCommandResponseSource());
  Mark();
  std::vector<std::string> received;
  CreateFirst([&received](const lbm::Message& message) {
    received.push_back(message.TopicName() + std::string("=") + std::string(message.Data(), message.Length()));
  });

  EXPECT_THAT(
      ManagerStatements(),
      ElementsAre(
          Statement{ZQLOG_INFO, 13, "Created ClientHostCommandReceiver on topic=\"" + kFirst.host + '"'},
          Statement{ZQLOG_INFO, 13, "Created ClientIDCommandReceiver on topic=\"" + kFirst.id + '"'},
          Statement{ZQLOG_INFO, 13, "Created ClientCommandResponseSource on topic=\"" + kFirst.response + '"'}));
  const auto calls = CallsSinceMark();
  ASSERT_THAT(
      Functions(calls),
      ElementsAre("lbm_rcv_topic_attr_create", "lbm_rcv_topic_lookup", "lbm_rcv_create", "lbm_rcv_topic_attr_delete",
                  "lbm_rcv_topic_attr_create", "lbm_rcv_topic_lookup", "lbm_rcv_create", "lbm_rcv_topic_attr_delete",
                  "lbm_src_topic_attr_create", "lbm_src_topic_alloc", "lbm_src_create", "lbm_src_topic_attr_delete"));
  EXPECT_TRUE(calls[2].IsNull("evq"));
  EXPECT_TRUE(calls[6].IsNull("evq"));
  EXPECT_TRUE(calls[10].IsNull("proc"));
  EXPECT_TRUE(calls[10].IsNull("evq"));

  lbm_scripted::Message command;
  command.data = "stop";
  lbm_scripted::Deliver(lbm_scripted::FindReceiver(kFirst.host), command);
  lbm_scripted::Deliver(lbm_scripted::FindReceiver(kFirst.id), command);
  EXPECT_THAT(received, ElementsAre(kFirst.host + "=stop", kFirst.id + "=stop"));
  ASSERT_TRUE(m_manager->GetCommandResponseSource());
  EXPECT_EQ(m_manager->GetCommandResponseSource()->GetTopic(), kFirst.response);
}

TEST_F(CommandChannel, IsReplacedOneByOneByASecondCall) {
  Start();
  CreateFirst();
  SourcePtr earlier = m_manager->GetCommandResponseSource();
  Mark();
  CreateSecond();
  EXPECT_THAT(log_capture::Texts(),
              ElementsAre("Creating receiver on topic=" + kSecond.host, "Deleting receiver on topic=" + kFirst.host,
                          "Created ClientHostCommandReceiver on topic=\"" + kSecond.host + '"',
                          "Creating receiver on topic=" + kSecond.id, "Deleting receiver on topic=" + kFirst.id,
                          "Created ClientIDCommandReceiver on topic=\"" + kSecond.id + '"',
                          "Creating source on topic=" + kSecond.response,
                          "Created ClientCommandResponseSource on topic=\"" + kSecond.response + '"'));
  EXPECT_EQ(m_manager->GetCommandResponseSource()->GetTopic(), kSecond.response);

  EXPECT_EQ(lbm_scripted::FindSource(kFirst.response), static_cast<lbm_src_t*>(*earlier));
  earlier.reset();
  EXPECT_EQ(lbm_scripted::FindSource(kFirst.response), nullptr);
}

TEST_F(CommandChannel, IsTakenDownBeforeAttributesAndContext) {
  Start();
  CreateFirst();
  m_manager->Shutdown();
  Mark();
  m_manager.reset();
  const auto calls = CallsSinceMark();
  ASSERT_THAT(Functions(calls), ElementsAre("lbm_src_delete", "lbm_rcv_delete", "lbm_rcv_delete",
                                            "lbm_context_attr_delete", "lbm_context_delete"));
  EXPECT_THAT(calls[0].ToString(), HasSubstr(kFirst.response));
  EXPECT_THAT(calls[1].ToString(), HasSubstr(kFirst.host));
  EXPECT_THAT(calls[2].ToString(), HasSubstr(kFirst.id));
}

struct FailingStep {
  const char* function;
  int successesBefore;
  const char* error;
  const Channel& host;  // whose endpoint is there in the end
  const Channel& id;
};

void PrintTo(const FailingStep& step, std::ostream* out) { *out << step.function << ' ' << step.successesBefore; }

class CommandChannelFailure : public CommandChannel, public testing::WithParamInterface<FailingStep> {};

TEST_P(CommandChannelFailure, KeepsWhatWasReplacedBeforeAndLeaksNothing) {
  const FailingStep& step = GetParam();
  Start();
  CreateFirst();
  if (step.successesBefore > 0) {
    lbm_scripted::Script(step.function, {}, step.successesBefore);
  }
  lbm_scripted::Script(step.function, Failure(LBM_EINVAL, "no"));
  try {
    CreateSecond();
    ADD_FAILURE() << "no error";
  } catch (const lbm::LbmError& error) {
    EXPECT_STREQ(error.what(), step.error);
  }
  EXPECT_NE(lbm_scripted::FindReceiver(step.host.host), nullptr);
  EXPECT_NE(lbm_scripted::FindReceiver(step.id.id), nullptr);
  EXPECT_EQ(m_manager->GetCommandResponseSource()->GetTopic(), kFirst.response);
  EXPECT_THAT(lbm_scripted::LiveHandles("rcv"), SizeIs(2));
  EXPECT_THAT(lbm_scripted::LiveHandles("src"), SizeIs(1));
  EXPECT_THAT(lbm_scripted::LiveHandles("rcv_topic_attr"), IsEmpty());
  EXPECT_THAT(lbm_scripted::LiveHandles("src_topic_attr"), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    , CommandChannelFailure,
    testing::Values(FailingStep{"lbm_rcv_topic_attr_create", 0, "Failed to create LBM receiver topic attributes: no",
                                kFirst, kFirst},
                    FailingStep{"lbm_rcv_topic_lookup", 0, "Failed to lookup LBM topic: no", kFirst, kFirst},
                    FailingStep{"lbm_rcv_create", 1, "Failed to create LBM receiver: no", kSecond, kFirst},
                    FailingStep{"lbm_src_topic_attr_create", 0, "Failed to create LBM source topic attributes: no",
                                kSecond, kSecond},
                    FailingStep{"lbm_src_topic_alloc", 0, "Failed to create LBM topic: no", kSecond, kSecond},
                    FailingStep{"lbm_src_create", 0, "Failed to create LBM sender: no", kSecond, kSecond}));

TEST_F(CommandChannel, NeedsAClientThatATopicCanBeNamedAfter) {
  Start();
  EXPECT_THROW(m_manager->CreateCommandSourceAndReceivers({}, "trader-7.example.com", ""), std::invalid_argument);
  EXPECT_NE(lbm_scripted::FindReceiver(kFirst.host), nullptr);
  EXPECT_FALSE(m_manager->GetCommandResponseSource());
  EXPECT_THAT(lbm_scripted::LiveHandles("rcv_topic_attr"), IsEmpty());
}

}  // namespace
}  // namespace ps_ns
