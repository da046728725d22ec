// Triage requests over the embedded engine: good ones, and what must not harm the process that gets them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "lbm/lbm_cpp"
#include "test_support/private_domain.h"
#include "zq/logging/testing/log_capture.h"
#include "zq/messaging/triage.pb.h"
#include "zq/messaging/triage_requests.h"
#include "zq/messaging/wire.pb.h"

namespace lbm {
namespace {

namespace triage = zq::messaging::triage;

std::string Enveloped(const std::string& payload) {
  zq::messaging::Wire wire;
  wire.mutable_header()->set_msg_type(zq::messaging::Header::MSG_OPS_TRIAGE_ACTION_WITH_WIRE);
  wire.add_payload(payload);
  return wire.SerializeAsString();
}

class TriageEngineTest : public ::testing::Test {
 protected:
  // The ids of the answers to the request by the time that a good one behind it is answered.
  std::vector<std::string> AnswersTo(const std::string& request) {
    std::vector<std::string> answers;
    const auto send = [&](const std::string& data) {
      return m_source.SendRequest(data.data(), data.size(), LBM_SRC_FLUSH, [&answers](const Message& answer) {
        triage::TriageResponse response;
        EXPECT_TRUE(response.ParseFromArray(answer.Data(), static_cast<int>(answer.Length())));
        EXPECT_TRUE(response.has_status());
        answers.push_back(response.request_id());
      });
    };
    const auto first = send(request);
    const auto second = send(triage::TestRequest("behind"));
    EXPECT_TRUE(PollUntil([&] { return !answers.empty() && answers.back() == "behind"; })) << "waited for the answer";
    answers.pop_back();
    return answers;
  }

  template <class Condition>
  bool PollUntil(const Condition& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition() && std::chrono::steady_clock::now() < deadline) {
      m_tool.Poll(10);
    }
    return condition();
  }

  static ContextAttributes ToolAttributes() {
    ::setenv("CHEF_ENVIRONMENT", "engine", 1);
    ::setenv("DATA_CENTER", "dc1", 1);
    ::setenv("TRIAGE_HANDLER_USE_EVENT_QUEUE", "1", 1);
    ContextAttributes attributes;
    attributes.SetString("operational_mode", "sequential");
    attributes.SetString("context_name", "tool");
    return attributes;
  }

  // Its sends wait for room, so that what stands behind a large request is not dropped.
  static SourceTopicAttributes Patient() {
    SourceTopicAttributes attributes;
    attributes.SetString("transport_pacing", "receiver");
    return attributes;
  }

  const test_support::PrivateDomain m_domain;
  bool m_connected = false;
  Context m_tool{ToolAttributes()};
  Source m_source{m_tool, {m_tool, triage::ActionTopic("", "engine", "dc1"), Patient()}, [this](int event, void*) {
                    m_connected = m_connected || event == LBM_SRC_EVENT_CONNECT;
                  }};
  Context m_served{ContextAttributes()};
};

TEST_F(TriageEngineTest, GoodRequestsAreAnsweredByIdAndBadOnesDoNoHarm) {
  zq::logging::testing::log_capture::SetMinLevel(zq::logging::ZQLOG_INFO_SEARCH);
  ASSERT_TRUE(PollUntil([this] { return m_connected; })) << "waited for the triage receiver";
  for (const std::string& id : {std::string(), std::string("\xff\xc0\x80\0\n", 5), std::string(1 << 20, '\xe9')}) {
    EXPECT_EQ(AnswersTo(triage::TestRequest(id)), std::vector{id});
    EXPECT_EQ(AnswersTo(triage::NakKillRequest(triage::ALL, false, id)), std::vector{id});
  }
  std::string nested;
  for (int depth = 0; depth < 1000; ++depth) {
    nested = Enveloped(nested);
  }
  const std::string large(10 << 20, '\xff');
  const std::string groups(10 << 20, '\x7b');  // the beginnings of them
  for (const std::string& request : {std::string(), large, groups, Enveloped(large), Enveloped(groups), nested}) {
    EXPECT_THAT(AnswersTo(request), ::testing::IsEmpty()) << request.substr(0, 20);
  }
}

}  // namespace
}  // namespace lbm
